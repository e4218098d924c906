#pragma once

#include <string>

namespace tarvex::server {

/// Gets a new password and makes its hash: from the first line of `file`, or, when that is empty, from the person at
/// the terminal, who types it twice. Throws account_failure: wrong use where there is neither.
[[nodiscard]] std::string new_password_hash(const std::string& account, const std::string& file);

}  // namespace tarvex::server
