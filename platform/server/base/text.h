#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

namespace tarvex::server {

/// Whether a byte is an ASCII control character (0 to 31, and 127).
bool is_control(char byte);

/// Bytes of the control character that `text` begins with: one of ASCII has 1, one of U+0080 to U+009F in UTF-8 has 2;
/// 0: it begins with none. A byte 128 to 159 alone is no control character here: in names of other encodings it is part
/// of a letter.
std::size_t control_length(std::string_view text);

/// Whether a byte is an ASCII letter or digit, in any locale.
bool is_alphanumeric(char byte);

/// Appends `text` with each control character replaced by '?'.
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
