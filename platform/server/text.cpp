#include "text.h"

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

}  // namespace tarvex::server
