#pragma once

#include <span>
#include <string>
#include <string_view>

namespace tarvex::server {

/// Whether a byte is an ASCII control character (0 to 31, and 127).
bool is_control(char byte);

/// Whether a byte is an ASCII letter or digit, in any locale.
bool is_alphanumeric(char byte);

/// Appends `text` with each control byte replaced by '?'.
void append_printable(std::string& out, std::string_view text);

/// Appends two lower-case hex digits for each byte.
void append_hex(std::string& out, std::span<const unsigned char> bytes);

/// Whether two ASCII words are the same but for case.
bool same_word(std::string_view a, std::string_view b);

/// Cuts the first field off `rest`, and one separator after it. \return what stood before the separator; all of it
/// where there is none.
std::string_view take_field(std::string_view& rest, char separator);

/// Cuts the first word off `rest`, and one blank after it. \return what stood before the blank.
std::string_view take_word(std::string_view& rest);

}  // namespace tarvex::server
