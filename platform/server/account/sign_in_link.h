#pragma once

#include "base/secret.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tarvex::server {

/// The redirect address of the configuration, taken apart. Borrows from nothing.
struct redirect_address {
  bool secure = false;  ///< https
  std::string host;     ///< as in an address, IPv6 in brackets
  std::optional<std::uint16_t> port;
  std::string path;       ///< begins with "/"
  bool loopback = false;  ///< the host is this one

  /// The address with a port that was free, or as it stands.
  [[nodiscard]] std::string with_port(std::optional<std::uint16_t> chosen) const;
};

/// \return nothing when the text is no private address (is_private_url).
[[nodiscard]] std::optional<redirect_address> redirect_parse(std::string_view text);

/// What ties an answer to the question: 128 random bits as hex digits. Throws std::runtime_error when there are none.
[[nodiscard]] std::string new_sign_in_state();

/// Where the person's browser is sent to (RFC 6749 section 4.1.1).
[[nodiscard]] std::string authorise_address(const std::string& authorise_url, const std::string& client_id,
                                            const std::string& redirect, const std::string& state);

/// What Box had the browser bring back (RFC 6749 section 4.1.2).
struct redirect_answer {
  enum class verdict {
    elsewhere,    ///< another path than the redirect's
    wrong_state,  ///< the answer to another question, or nobody's
    denied,       ///< `reason` says why
    granted       ///< `code` is to be exchanged within half a minute
  };
  verdict how = verdict::elsewhere;
  secret code = {};
  std::string reason = {};  ///< one line, printable
};

/// Reads path and query of a request, as they stand in its first line.
[[nodiscard]] redirect_answer redirect_read(std::string_view target, const redirect_address& redirect,
                                            std::string_view state);

/// The same of a whole address that a person has pasted. Scheme and host have to be the redirect's, and for hosts other
/// than this one the port too.
[[nodiscard]] redirect_answer redirect_read_pasted(std::string_view address, const redirect_address& redirect,
                                                   std::string_view state);

}  // namespace tarvex::server
