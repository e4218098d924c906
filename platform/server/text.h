#pragma once

#include <span>
#include <string>
#include <string_view>

namespace tarvex::server {

/// Whether a byte is an ASCII control character (0 to 31, and 127).
bool is_control(char byte);

/// Appends `text` with each control byte replaced by '?'.
void append_printable(std::string& out, std::string_view text);

/// Appends two lower-case hex digits for each byte.
void append_hex(std::string& out, std::span<const unsigned char> bytes);

}  // namespace tarvex::server
