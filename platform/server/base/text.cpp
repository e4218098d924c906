#include "base/text.h"

#include <strings.h>
#include <algorithm>
#include <charconv>

namespace tarvex::server {

bool is_control(char byte) {
  const auto value = static_cast<unsigned char>(byte);
  return value < 0x20 || value == 0x7f;
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

std::string_view take_word(std::string_view& rest) {
  const std::string_view word = rest.substr(0, rest.find(' '));
  rest.remove_prefix(std::min(rest.size(), word.size() + 1));
  return word;
}

std::optional<std::int64_t> parse_integer(std::string_view text) {
  std::int64_t number = 0;
  const char* const end = text.data() + text.size();
  const auto [parsed, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || parsed != end) return std::nullopt;
  return number;
}

}  // namespace tarvex::server
