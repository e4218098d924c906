#include "base/text.h"

#include <strings.h>

#include <algorithm>

namespace tarvex::server {

namespace {

constexpr char TWO_BYTE_LEAD = '\xc2';  // of U+0080 to U+00BF

}  // namespace

bool is_control(char byte) {
  const auto value = static_cast<unsigned char>(byte);
  return value < 0x20 || value == 0x7f;
}

std::size_t control_length(std::string_view text) {
  if (text.empty()) return 0;
  if (is_control(text[0])) return 1;
  const bool in_two_bytes =
      text[0] == TWO_BYTE_LEAD && text.size() > 1 && (static_cast<unsigned char>(text[1]) & 0xe0U) == 0x80;
  return in_two_bytes ? 2 : 0;
}

bool is_alphanumeric(char byte) {
  return (byte >= '0' && byte <= '9') || (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z');
}

void append_printable(std::string& out, std::string_view text) {
  const auto starts_no_control = [](char byte) { return !is_control(byte) && byte != TWO_BYTE_LEAD; };
  while (!text.empty()) {
    const auto plain = std::find_if_not(text.begin(), text.end(), starts_no_control) - text.begin();
    out.append(text.substr(0, static_cast<std::size_t>(plain)));
    text.remove_prefix(static_cast<std::size_t>(plain));
    if (text.empty()) return;
    const std::size_t control = control_length(text);
    out.push_back(control > 0 ? '?' : text.front());
    text.remove_prefix(std::max<std::size_t>(control, 1));
  }
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
