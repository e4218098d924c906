#pragma once

#include <string_view>

namespace tarvex::server {

class session;

/// OPTS RETR: how downloads in extended block mode go, "Parallelism=4,1,8;BlockSize=262144;". What is known and means
/// nothing here is passed over.
void opts_retr(session& client, std::string_view options);

}  // namespace tarvex::server
