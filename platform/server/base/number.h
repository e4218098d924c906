#pragma once

#include <charconv>
#include <concepts>
#include <optional>
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

}  // namespace tarvex::server
