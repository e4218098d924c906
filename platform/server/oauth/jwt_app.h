#pragma once

#include "base/secret.h"
#include "oauth/token_request.h"

#include <chrono>
#include <functional>
#include <string>

namespace tarvex::server {

/// What Box's downloaded app file holds, as far as it is used: all that an assertion takes.
struct jwt_app {
  oauth_app app;
  std::string key_id;
  secret private_key;  ///< PEM, without a passphrase
  std::string algorithm = "RS256";
};

/// Reads an app file ({"boxAppSettings": {"clientID", "clientSecret", "appAuth": {"publicKeyID", "privateKey",
/// "passphrase"}}}).
/// \param content        of the file; wiped
/// \param ask_passphrase called when the key is encrypted and the file has no passphrase
/// \return what is wrong with it, in one line; empty: `out` is good.
[[nodiscard]] std::string jwt_app_parse(std::string&& content, const std::function<secret()>& ask_passphrase,
                                        jwt_app& out);

/// Makes an assertion (RFC 7523 section 3), good for less than a minute, with a new id each time.
/// \param now  what the other side takes for the time
/// \return empty when it cannot be made.
[[nodiscard]] secret jwt_assertion(const jwt_app& app, const std::string& audience, const std::string& box_user,
                                   std::chrono::sys_seconds now);

}  // namespace tarvex::server
