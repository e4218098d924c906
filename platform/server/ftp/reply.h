#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tarvex::server {

/// Formats an FTP reply (RFC 959 section 4.2), CRLF included. One line gives "CODE line"; several give
/// "CODE-first", "CODE-next", ..., and "CODE End." as the last. CR, LF, NUL and other control characters inside a line
/// are replaced by '?', so that a name cannot forge a reply; a byte 255 is doubled (telnet, RFC 854).
std::string reply_format(int code, const std::vector<std::string>& lines);
std::string reply_format(int code, std::string_view line);

/// A reply of several lines with a frame around them, as FEAT, MLST and STAT answer (RFC 2389 section 3.2, RFC 3659
/// section 7.3): "CODE-first", each inner line as it stands behind a blank, "CODE last".
std::string reply_block(int code, std::string_view first, const std::vector<std::string>& inner, std::string_view last);

/// The parts of such a reply, for one that goes out while its lines are still being made: "CODE-first" and one inner
/// line, CRLF included. reply_format gives the last line.
std::string reply_block_first(int code, std::string_view first);
std::string reply_block_inner(std::string_view line);

/// A line as it may stand in a reply: control characters replaced, a byte 255 doubled.
std::string reply_clean(std::string_view line);

}  // namespace tarvex::server
