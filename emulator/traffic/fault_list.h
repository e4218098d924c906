#pragma once

#include "traffic/fault.h"

#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace tarvex::emulator {

/// Scripted faults, tried in the order in which they were added. Usable from all threads.
class fault_list {
 public:
  /// Adds one row (an object) or several (an array of them). Returns an empty text or what is wrong; then none is
  /// added.
  [[nodiscard]] std::string add(const json_t* rows);

  /// The first fault that is due for a request; counts the request for every row that it matches before that one.
  /// `seed` fixes what probabilities draw.
  [[nodiscard]] std::optional<fault_action> match(const request& in, std::int64_t seed);

  /// All rows with "matched" (requests that fitted) and "used" (requests that it did something to).
  [[nodiscard]] json_ptr list() const;
  void clear();

 private:
  mutable std::mutex mutex_;  // guards all below
  std::vector<fault> faults_;
  std::int64_t next_ = 1;
};

}  // namespace tarvex::emulator
