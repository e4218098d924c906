#include "base/text.h"

#include <strings.h>

#include <algorithm>

namespace tarvex::server {

bool is_control(char byte) {
  const auto value = static_cast<unsigned char>(byte);
  return value < 0x20 || value == 0x7f;
}

bool is_alphanumeric(char byte) {
  return (byte >= '0' && byte <= '9') || (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z');
}

void append_printable(std::string& out, std::string_view text) {
  for (const char byte : text) out.push_back(is_control(byte) ? '?' : byte);
}

void append_hex(std::string& out, std::span<const unsigned char> bytes) {
  constexpr char DIGITS[] = "0123456789abcdef";
  for (const unsigned char byte : bytes) out.append({DIGITS[byte >> 4], DIGITS[byte & 15]});
}

bool same_word(std::string_view a, std::string_view b) {
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

std::string_view take_field(std::string_view& rest, char separator) {
  const std::string_view field = rest.substr(0, rest.find(separator));
  rest.remove_prefix(std::min(rest.size(), field.size() + 1));
  return field;
}

std::string_view take_word(std::string_view& rest) {
  return take_field(rest, ' ');
}

}  // namespace tarvex::server
