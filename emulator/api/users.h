#pragma once

#include <string>

#include "api/call.h"

namespace tarvex::emulator {

/// GET /2.0/users/me.
[[nodiscard]] response user_me(call& of);

/// GET /2.0/events: an empty stream whose position does not move.
[[nodiscard]] response events(call& of);

/// Makes a user of that name with a root folder, where there is none, and gives it a token that never expires.
user user_account(box_state& box, const std::string& name, const std::string& token);

/// Whose token a request carries. Throws 401.
[[nodiscard]] user user_of_request(const call& of);

}  // namespace tarvex::emulator
