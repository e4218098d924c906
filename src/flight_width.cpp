#include "flight_width.h"

#include <algorithm>

namespace tarvex::box {

flight_width::flight_width(int most) : most_(std::max(most, 1)), width_(most_) {}

void flight_width::good(duration took) {
  if (++good_in_row_ >= width_ && width_ < most_) {
    ++width_;
    good_in_row_ = 0;
  }
  sum_ += took;
  if (++timed_ < COMPARED) return;
  const duration sum = sum_;
  timed_ = 0;
  sum_ = {};
  if (best_ && sum >= 2 * *best_) halve();
  best_ = std::min(best_.value_or(sum), sum);
}

void flight_width::refused() {
  halve();
}

void flight_width::halve() {
  width_ = std::max(width_ / 2, 1);
  good_in_row_ = 0;
  timed_ = 0;  // what was on its way under the old width says nothing of the new one
  sum_ = {};
}

}  // namespace tarvex::box
