#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarvex::server {

/// Bytes of a file, from `begin` up to and without `end`.
struct file_range {
  std::uint64_t begin = 0;
  std::uint64_t end = 0;

  std::uint64_t bytes() const { return end - begin; }
};

/// In order and apart from each other.
using file_ranges = std::vector<file_range>;

/// The argument of REST: "N", which stands for the first N bytes (RFC 3659 section 5), or ranges "a-b,c-d" as in a 111
/// reply (GridFTP), whose second number stands behind the range. They may come in any order and overlap. \return
/// nothing when it is neither, or a number is above the largest size of a file.
[[nodiscard]] std::optional<file_ranges> file_ranges_parse(std::string_view text);

/// "a-b,c-d".
[[nodiscard]] std::string file_ranges_format(const file_ranges& ranges);

/// What of `whole` is not in `held`.
[[nodiscard]] file_ranges file_ranges_missing(const file_ranges& held, file_range whole);

/// Bytes of all.
[[nodiscard]] std::uint64_t file_ranges_bytes(const file_ranges& ranges);

}  // namespace tarvex::server
