#include "http/byte_range.h"

#include "base/text.h"

#include <algorithm>

namespace tarvex::emulator {

range_kind byte_range_parse(std::string_view header, std::int64_t size, byte_range& into) {
  constexpr std::string_view UNIT = "bytes=";
  const auto dash = header.find('-');
  if (!lower(header).starts_with(UNIT) || dash == std::string_view::npos ||
      header.find(',') != std::string_view::npos) {
    return range_kind::WHOLE;
  }
  const std::string_view from = trim(header.substr(UNIT.size(), dash - UNIT.size()));
  const std::string_view to = trim(header.substr(dash + 1));
  const auto first = number_of(from);
  const auto last = number_of(to);
  if ((!from.empty() && !first) || (!to.empty() && !last) || (from.empty() && to.empty())) return range_kind::WHOLE;
  // A range that runs backwards is not one, and is ignored like any other nonsense; one that begins behind the end is
  // refused. So every range of an empty file is refused.
  if (first && last && *last < *first) return range_kind::WHOLE;
  if (!first && *last == 0) return range_kind::UNSATISFIABLE;
  into.first = first ? *first : std::max<std::int64_t>(0, size - *last);
  into.last = first && last ? std::min(*last, size - 1) : size - 1;
  return into.first < size ? range_kind::PART : range_kind::UNSATISFIABLE;
}

}  // namespace tarvex::emulator
