#include "content_range.h"

#include <charconv>
#include <string_view>

namespace tarvex::rest {
namespace {

/// The digits that `text` begins with, which are taken off; nothing when it begins with none.
std::optional<std::int64_t> take_number(std::string_view& text) noexcept {
  if (text.empty() || text.front() == '-') return std::nullopt;
  std::int64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc()) return std::nullopt;
  text.remove_prefix(static_cast<std::size_t>(end - text.data()));
  return number;
}

}  // namespace

content_range parse_content_range(const char* value) noexcept {
  constexpr std::string_view UNIT = "bytes ";
  std::string_view text = value == nullptr ? "" : value;
  if (!text.starts_with(UNIT)) return {};
  text.remove_prefix(UNIT.size());
  content_range range;
  const auto first = take_number(text);
  if (first && text.starts_with('-')) range.first = first;
  const std::size_t slash = text.find('/');
  if (slash == std::string_view::npos) return range;
  text.remove_prefix(slash + 1);
  range.total = take_number(text);
  return range;
}

}  // namespace tarvex::rest
