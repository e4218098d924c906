/// \file
/// How a file is cut into ranges.
#pragma once

#include "tarvex_box_common.h"

#include <algorithm>
#include <utility>

namespace tarvex::box {

/// Hands out the ranges.
class range_plan {
 public:
  range_plan(tarvex_off_t begin, tarvex_off_t end)
      : next_(begin), end_(end), size_(tarvex_i_box_download_range), streams_(tarvex_i_box_download_streams) {}

  bool over() const { return next_ == end_; }
  tarvex_off_t next() const { return next_; }
  tarvex_off_t end() const { return end_; }
  /// Takes the next range. The first ones grow, so that the connections do not come to their ends all at once, and the
  /// client has its bytes early.
  std::pair<tarvex_off_t, tarvex_off_t> take() {
    const tarvex_off_t left = end_ - next_;
    tarvex_off_t length = std::clamp(left / streams_, size_ / SHORTEST_SHARE, size_);
    if (++taken_ < streams_) length = std::min(length, size_ / streams_ * taken_);
    const tarvex_off_t begin = next_;
    next_ += std::min(std::max<tarvex_off_t>(length, 1), left);
    return {begin, next_};
  }
  bool is_full(tarvex_off_t length) const { return length == size_; }

 private:
  /// The last ranges are shorter than the others, down to this share, so that all connections end at about the same
  /// time.
  static constexpr tarvex_off_t SHORTEST_SHARE = 4;

  tarvex_off_t next_;
  const tarvex_off_t end_;
  const tarvex_off_t size_;
  const tarvex_off_t streams_;
  tarvex_off_t taken_ = 0;
};

}  // namespace tarvex::box
