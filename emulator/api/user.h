#pragma once

#include "api/call.h"

namespace tarvex::emulator {

/// GET /2.0/users/me.
[[nodiscard]] response user_me(call& of);

}  // namespace tarvex::emulator
