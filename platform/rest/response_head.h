#pragma once

#include "tarvex_common.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace tarvex::rest {

struct header_line {
  std::string name;
  std::string value;
};

/// Status and headers of the final answer, gathered line by line. Interim answers (1xx) before it and trailers behind
/// its body do not count.
class response_head {
 public:
  /// Takes one line as libcurl hands it over, with its line end. `status` is that of the block that the line belongs
  /// to. A head of more than 256 KiB is an error.
  [[nodiscard]] tarvex_result_t add_line(std::string_view line, int status);

  [[nodiscard]] bool complete() const noexcept { return complete_; }
  [[nodiscard]] int status() const noexcept { return status_; }
  [[nodiscard]] const std::vector<header_line>& lines() const noexcept { return lines_; }

  /// Value of the last header of that name, without regard to case; null when there is none.
  [[nodiscard]] const char* find(const char* name) const noexcept;

 private:
  void add_header(std::string_view line);

  std::vector<header_line> lines_;
  std::size_t size_bytes_ = 0;
  int status_ = 0;
  bool complete_ = false;
};

}  // namespace tarvex::rest
