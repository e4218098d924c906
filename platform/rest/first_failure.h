#pragma once

#include "tarvex_common.h"

#include <utility>

namespace tarvex::rest {

/// Keeps the first failure of several and releases those that follow from it.
class first_failure {
 public:
  first_failure() = default;
  first_failure(const first_failure&) = delete;
  first_failure& operator=(const first_failure&) = delete;
  ~first_failure() { tarvex_result_release(kept_); }

  explicit operator bool() const noexcept { return kept_ != TARVEX_SUCCESS; }

  /// Takes `result` over. Success changes nothing.
  void note(tarvex_result_t result) noexcept {
    if (kept_ == TARVEX_SUCCESS) {
      kept_ = result;
    } else {
      tarvex_result_release(result);
    }
  }

  /// The failure, which is the caller's from now on; success when there was none.
  [[nodiscard]] tarvex_result_t take() noexcept { return std::exchange(kept_, TARVEX_SUCCESS); }

 private:
  tarvex_result_t kept_ = TARVEX_SUCCESS;
};

}  // namespace tarvex::rest
