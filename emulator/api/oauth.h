#pragma once

#include "api/call.h"

namespace tarvex::emulator {

/// GET /api/oauth2/authorize: the page on which a person signs in and consents. By the setting `consent=at_once` it
/// redirects with a code, for the account that an extra query member `user` names (without it the first one).
[[nodiscard]] response oauth_authorise(call& of);

/// POST to the same address, what the page's form sends: redirects with a code or with `access_denied`, or shows the
/// page again.
[[nodiscard]] response oauth_consent(call& of);

/// POST /oauth2/token: the four grants.
[[nodiscard]] response oauth_token(call& of);

/// POST /oauth2/revoke: ends the sign-in of an access or refresh token.
[[nodiscard]] response oauth_revoke(call& of);

/// Notes in the journal which grant a token request asks for, where it is not carried out.
void oauth_note_grant(call& of);

}  // namespace tarvex::emulator
