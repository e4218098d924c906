#pragma once

#include <string>
#include <string_view>

namespace tarvex::server {

/// One line of the control connection (RFC 959 section 5.3): all behind the first blank is the argument, blanks
/// included, because names may begin and end with some.
struct command_line {
  std::string verb;  ///< as the client wrote it; case does not matter in FTP
  std::string argument;
};

/// Splits a line, which comes without its CRLF.
[[nodiscard]] command_line command_line_parse(std::string_view line);

/// Whether a line is of an HTTP request, its first or one with a header: a browser has come, or a page in one that is
/// made to send bytes to this port. No verb of FTP is one of HTTP's methods or holds a colon.
[[nodiscard]] bool command_line_is_http(const command_line& line);

}  // namespace tarvex::server
