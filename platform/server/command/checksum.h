#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tarvex::server {

struct session;

/// The lines of FEAT about checksums.
std::vector<std::string> checksum_features(const session& session);

/// OPTS HASH: tells the algorithm of HASH, or sets it.
void checksum_options(session& session, std::string_view algorithm);

}  // namespace tarvex::server
