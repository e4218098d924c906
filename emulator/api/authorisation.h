#pragma once

#include "api/call.h"

namespace tarvex::emulator {

/// Whose token a request carries, in its header or as `access_token` in its query. Throws 401.
[[nodiscard]] user authorised_user(const call& of);

}  // namespace tarvex::emulator
