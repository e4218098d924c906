#pragma once

#include "account/account_files.h"

#include <string>

namespace tarvex::server {

/// Tries out what serving an account needs, and prints a line for each thing, or one JSON object. A token is renewed
/// only when a session would have it renewed too. Throws account_failure.
/// \return whether all of it works
[[nodiscard]] bool account_try(account_files& files, const std::string& name, bool json);

}  // namespace tarvex::server
