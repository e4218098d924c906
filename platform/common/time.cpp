#include "tarvex_common.h"

#include <poll.h>

#include <cerrno>
#include <cstdint>
#include <ctime>
#include <limits>

namespace {

constexpr long NANOSECONDS_PER_SECOND = 1'000'000'000;

timespec monotonic_now() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);  // fails for unknown clocks only
  return now;
}

/// `now` plus `duration`, or the last moment there is.
timespec deadline_after(timespec now, const timespec& duration) {
  const long nanoseconds = now.tv_nsec + duration.tv_nsec;
  const time_t carry = nanoseconds / NANOSECONDS_PER_SECOND;
  if (duration.tv_sec > std::numeric_limits<time_t>::max() - now.tv_sec - carry) {
    return {std::numeric_limits<time_t>::max(), 0};
  }
  return {now.tv_sec + duration.tv_sec + carry, nanoseconds % NANOSECONDS_PER_SECOND};
}

/// Time from `now` to `deadline`; negative seconds once it has passed.
timespec time_left(const timespec& deadline, const timespec& now) {
  timespec left = {deadline.tv_sec - now.tv_sec, deadline.tv_nsec - now.tv_nsec};
  if (left.tv_nsec < 0) {
    left.tv_nsec += NANOSECONDS_PER_SECOND;
    --left.tv_sec;
  }
  return left;
}

bool valid(const timespec& duration) {
  return duration.tv_sec >= 0 && duration.tv_nsec >= 0 && duration.tv_nsec < NANOSECONDS_PER_SECOND;
}

}  // namespace

extern "C" {

void tarvex_time_now(struct timeval* now) {
  gettimeofday(now, nullptr);
}

int tarvex_sleep(const struct timespec* duration) {
  if (duration == nullptr || !valid(*duration)) return EINVAL;
  const timespec deadline = deadline_after(monotonic_now(), *duration);
  // Without a bound source the descriptor is -1, which poll passes over.
  pollfd cancelled = {.fd = tarvex_cancel_fd(), .events = POLLIN, .revents = 0};
  while (!tarvex_cancel_requested()) {
    const timespec left = time_left(deadline, monotonic_now());
    if (left.tv_sec < 0 || (left.tv_sec == 0 && left.tv_nsec == 0)) return 0;
    ppoll(&cancelled, 1, &left, nullptr);  // whatever woke it, the loop looks again
  }
  return ECANCELED;
}

}  // extern "C"
