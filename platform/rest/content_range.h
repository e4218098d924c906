#pragma once

#include <cstdint>
#include <optional>

namespace tarvex::rest {

/// What a Content-Range header tells (RFC 9110 section 14.4); nothing of what it leaves open.
struct content_range {
  std::optional<std::int64_t> first;  ///< byte that the body begins with
  std::optional<std::int64_t> total;  ///< bytes of the whole
};

/// Reads "bytes FIRST-LAST/TOTAL", "bytes FIRST-LAST/*" and "bytes */TOTAL". \param value  null: no header
[[nodiscard]] content_range parse_content_range(const char* value) noexcept;

}  // namespace tarvex::rest
