#pragma once

#include "api/call.h"

namespace tarvex::emulator {

/// GET /api/oauth2/authorize: consents at once and redirects with a code. An extra query member `user` (a name)
/// chooses the account; without it the first one signs in.
[[nodiscard]] response oauth_authorise(call& of);

/// POST /oauth2/token: the four grants. Any client id and secret are taken, but they must be there.
[[nodiscard]] response oauth_token(call& of);

/// POST /oauth2/revoke.
[[nodiscard]] response oauth_revoke(call& of);

}  // namespace tarvex::emulator
