#include "traffic/rate_limiter.h"

#include "base/times.h"

#include <algorithm>

namespace tarvex::emulator {
namespace {

constexpr std::int64_t MINUTE_US = 60000000;

/// Seconds until the window has room for one more; 0: it has, as one without a limit (`most` 0) always has.
std::int64_t wait_seconds(std::deque<std::int64_t>& window, std::int64_t most, std::int64_t now) {
  if (most <= 0) return 0;
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
  std::int64_t wait = wait_seconds(mine.requests, set.account_requests_per_minute, now);
  if (is_upload) wait = std::max(wait, wait_seconds(mine.uploads, set.account_uploads_per_minute, now));
  if (wait > 0) return wait;
  if (set.account_requests_per_minute > 0) mine.requests.push_back(now);
  if (is_upload && set.account_uploads_per_minute > 0) mine.uploads.push_back(now);
  return 0;
}

}  // namespace tarvex::emulator
