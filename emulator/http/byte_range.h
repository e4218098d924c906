#pragma once

#include <cstdint>
#include <string_view>

namespace tarvex::emulator {

/// A stretch of a whole of `size` bytes, first and last byte included.
struct byte_range {
  std::int64_t first = 0;
  std::int64_t last = 0;
};

enum class range_kind { WHOLE, PART, UNSATISFIABLE };

/// Reads a Range header: "bytes=a-b", "bytes=a-" and "bytes=-n" (RFC 9110, 14.1.2). What is not of that form, or names
/// several ranges, is ignored. `into` is set for a PART alone.
[[nodiscard]] range_kind byte_range_parse(std::string_view header, std::int64_t size, byte_range& into);

}  // namespace tarvex::emulator
