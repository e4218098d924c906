#pragma once

#include "base/settings.h"

#include <cstdint>
#include <deque>
#include <map>
#include <mutex>

namespace tarvex::emulator {

/// Counts the requests of each user in a sliding minute. Usable from all threads.
class rate_limiter {
 public:
  /// Counts one request. Returns 0, or the whole seconds until there is room again (then it is not counted).
  [[nodiscard]] std::int64_t admit(const settings& set, std::int64_t user, bool is_upload);

 private:
  struct window {
    std::deque<std::int64_t> requests;  // microseconds since 1970
    std::deque<std::int64_t> uploads;
  };
  std::mutex mutex_;  // guards windows_
  std::map<std::int64_t, window> windows_;
};

}  // namespace tarvex::emulator
