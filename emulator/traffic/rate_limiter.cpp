#include "traffic/rate_limiter.h"

#include "base/times.h"

#include <algorithm>

namespace tarvex::emulator {
namespace {

constexpr std::int64_t MINUTE_US = 60000000;

/// Seconds until the window has room for one more; 0: it has.
std::int64_t wait_seconds(std::deque<std::int64_t>& window, std::int64_t most, std::int64_t now) {
  while (!window.empty() && window.front() <= now - MINUTE_US) window.pop_front();
  if (static_cast<std::int64_t>(window.size()) < most) return 0;
  // Whole seconds, rounded up: a client that comes back on the dot finds room.
  return window.empty() ? 60 : std::max<std::int64_t>(1, (window.front() + MINUTE_US - now + 999999) / 1000000);
}

}  // namespace

// A sliding minute, as nobody knows where Box's windows begin; a refused request is not counted, or a client that asks
// again and again would never get in.
std::int64_t rate_limiter::admit(const settings& set, std::int64_t user, bool is_upload) {
  const std::lock_guard lock(mutex_);
  window& mine = windows_[user];
  const std::int64_t now = time_now_us();
  std::int64_t wait = wait_seconds(mine.requests, set.rate_limit_requests, now);
  if (is_upload) wait = std::max(wait, wait_seconds(mine.uploads, set.rate_limit_uploads, now));
  if (wait > 0) return wait;
  mine.requests.push_back(now);
  if (is_upload) mine.uploads.push_back(now);
  return 0;
}

}  // namespace tarvex::emulator
