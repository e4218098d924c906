#include "shared_file.h"
#include "trace.h"

#include <fcntl.h>

#include <algorithm>
#include <cstring>

// Pacing file: not_until (8 bytes, reserved), last.tv_sec (8), last.tv_nsec (8), native byte order.
static_assert(sizeof(tarvex_box_retry_shared_s) == 24 && offsetof(tarvex_box_retry_shared_s, last) == 8);

namespace {

constexpr tarvex::box::shared_file_kind PACING_FILE = {
    .size = sizeof(tarvex_box_retry_shared_s),
    .prepared_size = sizeof(tarvex_box_retry_shared_s),
    .prepare = [](void* start) { static_cast<tarvex_box_retry_shared_s*>(start)->last = {}; },
};

constexpr int64_t MICROSECONDS_PER_SECOND = 1000000;

timespec tarvex_l_box_now() {
  timeval now{};
  tarvex_time_now(&now);
  return {.tv_sec = now.tv_sec, .tv_nsec = now.tv_usec * 1000};
}

void tarvex_l_box_sleep_us(int64_t microseconds) {
  // The whole wait goes into the nanoseconds: one of a second or more is refused, and then there is none, on purpose.
  const timespec wait = {.tv_sec = 0, .tv_nsec = microseconds * 1000};
  (void)tarvex_sleep(&wait);
}

/// Microseconds between two times less than a second apart, in either order; -1: a second or more.
int64_t tarvex_l_box_gap_us(timespec one, timespec other) {
  if (std::pair(one.tv_sec, one.tv_nsec) < std::pair(other.tv_sec, other.tv_nsec)) std::swap(one, other);
  int64_t seconds = 0;
  int64_t microseconds = 0;
  if (__builtin_sub_overflow(one.tv_sec, other.tv_sec, &seconds) ||
      __builtin_sub_overflow(one.tv_nsec, other.tv_nsec, &microseconds)) {
    return -1;
  }
  microseconds /= 1000;
  if (microseconds < 0) {
    --seconds;
    microseconds += MICROSECONDS_PER_SECOND;
  }
  return seconds == 0 && microseconds >= 0 ? microseconds : -1;
}

void tarvex_l_box_wait_asked(uint64_t retry_after, const char* function) {
  const uint64_t seconds = std::min(retry_after, static_cast<uint64_t>(std::max(tarvex_i_box_max_delay, 0)));
  TARVEX_BOX_LOG_DEBUG(function, "retry_after=%lu sleep=%lu\n", retry_after, seconds);
  const timespec wait = {.tv_sec = static_cast<time_t>(seconds), .tv_nsec = 0};
  (void)tarvex_sleep(&wait);
}

/// Waits until the spacing from the last stamp is kept, and stamps; the lock is held.
void tarvex_l_box_space(tarvex_box_retry_t& retry, const char* function) {
  const int64_t gap = tarvex_l_box_gap_us(tarvex_l_box_now(), retry.shared->last);
  if (gap >= 0 && int64_t{retry.delay} > gap) {
    const int64_t wait = int64_t{retry.delay} - gap;
    tarvex_l_box_sleep_us(wait);
    TARVEX_BOX_LOG_DEBUG(function, "sleep=%u\n", static_cast<unsigned>(wait));
  }
  retry.shared->last = tarvex_l_box_now();
}

/// False when the lock could not be had: then there was a plain wait.
bool tarvex_l_box_delay(uint64_t retry_after, tarvex_box_retry_t* retry, const char* function) {
  if (retry_after != 0) tarvex_l_box_wait_asked(retry_after, function);
  if (retry == nullptr || retry->shared == nullptr) return true;
  const tarvex_result_t locked = tarvex_i_box_retry_state_lock(retry, true);
  if (locked != TARVEX_SUCCESS) {  // so it is with a private record
    tarvex_result_release(locked);
    TARVEX_BOX_LOG_DEBUG(function, "sleep=%u lockfailed\n", retry->delay);
    tarvex_l_box_sleep_us(retry->delay);
    return false;
  }
  tarvex_l_box_space(*retry, function);
  tarvex_result_release(tarvex_i_box_retry_state_unlock(retry));
  return true;
}

}  // namespace

extern "C" {

void tarvex_i_box_retry_state_create(const char* name, int per_second, tarvex_box_retry_t* retry) {
  const tarvex::box::trace_scope scope;
  retry->delay = per_second != 0 ? static_cast<unsigned>(1000000 / per_second) : 0;
  const tarvex::box::shared_file file = tarvex::box::shared_file_open(tarvex_i_box_retry_path, name, PACING_FILE);
  retry->fd = file.fd;
  retry->shared = static_cast<tarvex_box_retry_shared_s*>(file.start);
  retry->is = true;
  scope.leave();
}

void tarvex_i_box_retry_state_destroy(tarvex_box_retry_t* retry) {
  const tarvex::box::trace_scope scope;
  tarvex::box::shared_file file = {.fd = retry->fd, .start = retry->shared};
  tarvex::box::shared_file_close(file, sizeof(tarvex_box_retry_shared_s));
  retry->fd = file.fd;
  retry->shared = nullptr;
  scope.leave();
}

tarvex_result_t tarvex_i_box_retry_state_lock(tarvex_box_retry_t* retry, bool wait) {
  return tarvex::box::traced([&] { return tarvex::box::shared_file_lock_result(retry->fd, F_WRLCK, wait); });
}

tarvex_result_t tarvex_i_box_retry_state_unlock(tarvex_box_retry_t* retry) {
  return tarvex::box::traced([&] { return tarvex::box::shared_file_lock_result(retry->fd, F_UNLCK, false); });
}

void tarvex_i_box_retry_delay(uint64_t retry_after, tarvex_box_retry_t* retry) {
  const tarvex::box::trace_scope scope;
  if (tarvex_l_box_delay(retry_after, retry, __func__)) scope.leave();
}

}  // extern "C"
