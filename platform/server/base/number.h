#pragma once

#include <array>
#include <charconv>
#include <concepts>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace tarvex::server {

/// A whole text as a number; nothing when it is empty, holds anything else (a blank, a "+", a fraction), or does not
/// fit the type. An unsigned type takes no "-".
/// \param base  2 to 36, without a prefix in the text
template <std::integral T>
[[nodiscard]] std::optional<T> parse_number(std::string_view text, int base = 10) {
  T number{};
  const char* const end = text.data() + text.size();
  const auto [parsed, error] = std::from_chars(text.data(), end, number, base);
  if (error != std::errc() || parsed != end) return std::nullopt;
  return number;
}

/// Appends a number, without a prefix.
/// \param base   2 to 36; digits beyond 9 are lower-case letters
/// \param width  the least number of digits of one that is not negative; shorter ones get zeros before them
template <std::integral T>
void append_number(std::string& out, T number, int base = 10, std::size_t width = 1) {
  std::array<char, 8 * sizeof(T) + 1> digits;
  const auto [end, error] = std::to_chars(digits.data(), digits.data() + digits.size(), number, base);
  const auto length = static_cast<std::size_t>(end - digits.data());
  if (length < width) out.append(width - length, '0');
  out.append(digits.data(), length);
}

}  // namespace tarvex::server
