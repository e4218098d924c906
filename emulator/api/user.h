#pragma once

#include "api/call.h"

namespace tarvex::emulator {

/// GET /2.0/users/me, /2.0/users/:id, and /2.0/users with `filter_term`.
[[nodiscard]] response user_me(call& of);
[[nodiscard]] response user_get(call& of);
[[nodiscard]] response user_list(call& of);

}  // namespace tarvex::emulator
