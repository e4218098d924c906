#include "ftp/file_ranges.h"

#include "base/number.h"
#include "base/text.h"

#include <algorithm>

namespace tarvex::server {

namespace {

std::optional<std::uint64_t> parse_position(std::string_view text) {
  const auto position = parse_number<std::int64_t>(text);
  if (!position || *position < 0 || text.starts_with('-')) return std::nullopt;
  return static_cast<std::uint64_t>(*position);
}

std::optional<file_range> parse_range(std::string_view text) {
  if (text.find('-') == std::string_view::npos) return std::nullopt;
  const auto begin = parse_position(take_field(text, '-'));
  const auto end = parse_position(text);
  if (!begin || !end || *end < *begin) return std::nullopt;
  return file_range{*begin, *end};
}

/// Puts ranges in order and joins those that touch.
file_ranges joined(file_ranges ranges) {
  std::sort(ranges.begin(), ranges.end(), [](auto& a, auto& b) { return a.begin < b.begin; });
  file_ranges result;
  for (const file_range& range : ranges) {
    if (range.bytes() == 0) continue;
    if (result.empty() || result.back().end < range.begin) {
      result.push_back(range);
    } else {
      result.back().end = std::max(result.back().end, range.end);
    }
  }
  return result;
}

}  // namespace

std::optional<file_ranges> file_ranges_parse(std::string_view text) {
  if (const auto first = parse_position(text)) return joined({{0, *first}});
  if (text.empty() || text.ends_with(',')) return std::nullopt;
  file_ranges ranges;
  while (!text.empty()) {
    const auto range = parse_range(take_field(text, ','));
    if (!range) return std::nullopt;
    ranges.push_back(*range);
  }
  return joined(std::move(ranges));
}

std::string file_ranges_format(const file_ranges& ranges) {
  std::string text;
  for (const file_range& range : ranges) {
    if (!text.empty()) text += ',';
    text += std::to_string(range.begin) + "-" + std::to_string(range.end);
  }
  return text;
}

file_ranges file_ranges_missing(const file_ranges& held, file_range whole) {
  file_ranges missing;
  for (const file_range& range : held) {
    if (range.begin >= whole.end) break;
    if (range.begin > whole.begin) missing.push_back({whole.begin, range.begin});
    whole.begin = std::max(whole.begin, range.end);
  }
  if (whole.begin < whole.end) missing.push_back(whole);
  return missing;
}

std::uint64_t file_ranges_bytes(const file_ranges& ranges) {
  std::uint64_t bytes = 0;
  for (const file_range& range : ranges) bytes += range.bytes();
  return bytes;
}

}  // namespace tarvex::server
