/// \file
/// How many requests a transfer has on its way at once: as many as are allowed, fewer while Box does not keep up.
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>

namespace tarvex::box {

/// Starts at the most that is allowed. Halves when Box refuses for its limits, or when the mean time of the last four
/// requests is twice the best mean so far; grows by one after as many good requests as are allowed. Only requests of
/// one size may be compared. Not guarded: the callers' lock is.
class flight_width {
 public:
  using duration = std::chrono::steady_clock::duration;

  /// \param most  1 at least
  explicit flight_width(int most);

  /// How many may be on their way now; 1 at least.
  [[nodiscard]] int width() const { return width_; }

  /// A request was carried out in that time.
  void good(duration took);

  /// Box refused one with 429 or 503.
  void refused();

 private:
  static constexpr size_t COMPARED = 4;

  void halve();

  int most_;
  int width_;
  int good_in_row_ = 0;             ///< since the width last changed
  size_t timed_ = 0;                ///< requests in `sum_`
  duration sum_{};                  ///< of the times of up to COMPARED requests
  std::optional<duration> best_{};  ///< smallest sum of COMPARED times
};

}  // namespace tarvex::box
