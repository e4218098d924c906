#pragma once

#include "api/call.h"

namespace tarvex::emulator {

/// Whose token a request carries, in its header or as `access_token` in its query; counts as the token's use. Notes
/// in the call what a token with scopes is limited to. Throws 401.
[[nodiscard]] user authorised_user(call& of);

/// The same where no token is needed: one that comes is used, one that is not good does no harm.
void authorisation_note(const call& of);

}  // namespace tarvex::emulator
