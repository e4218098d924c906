#pragma once

#include "base/secret.h"
#include "config/account_permissions.h"
#include "link/frame.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarvex::server {

/// What a session and the broker say to each other. A session's connection is its own: what it asks for is answered for
/// the account that it has logged in, once and for ever, and for no other.

/// What a session says.
struct session_says {
  enum class kind {
    login,        ///< who the client says it is; answered by `broker_says::login`
    creds,        ///< asks for the account's credential; answered by `broker_says::credential`
    renew_creds,  ///< the same, when the one before is about to expire, or Box refused it
    used,         ///< the token of `generation` has served
    leave         ///< the client has logged out; the connection stays the account's
  };
  kind what = kind::creds;
  std::uint64_t id = 0;                        ///< comes back with the answer
  std::string name = {};                       ///< login; any bytes, as those of the password
  secret password = {};                        ///< login, unless certificates stand for it
  std::vector<std::string> certificates = {};  ///< login: names of the certificate that TLS has verified
  std::uint64_t generation = 0;  ///< renew_creds: of a token that Box has refused, 0: none; used: of the token
};

/// How a login came out.
enum class login_result {
  accepted,
  refused,     ///< name, password or certificate is wrong
  closed,      ///< the account takes nobody now, or not from there
  unavailable  ///< nobody can tell at this moment: the client is to try again later
};

/// What the broker says.
struct broker_says {
  enum class kind {
    ready,       ///< a broker has taken the connection over: what was asked and not answered is to be asked again
    login,       ///< the answer to a login
    credential,  ///< the answer to creds and renew_creds
    end          ///< the session is to end, since its account has
  };
  kind what = kind::ready;
  std::uint64_t id = 0;
  login_result result = login_result::unavailable;
  int code = 0;           ///< of the reply to a failure: 421 or 530; 0: none failed
  std::string text = {};  ///< why, in one line, for the client
  std::string name = {};  ///< login accepted: of the account
  std::string root = "/";
  account_permissions permissions = account_permissions::full;
  std::optional<std::string> credential = {};  ///< the plug-in's document; none: none is there
  std::uint64_t generation = 0;                ///< of the credential's token
};

/// As frames; empty where a text is not UTF-8, or too long.
[[nodiscard]] secret message_encode(const session_says& message);
[[nodiscard]] secret message_encode(const broker_says& message);
/// Nothing when the frame is none, or does not say what it has to.
[[nodiscard]] std::optional<session_says> session_message_decode(std::string_view frame);
[[nodiscard]] std::optional<broker_says> broker_message_decode(std::string_view frame);

}  // namespace tarvex::server
