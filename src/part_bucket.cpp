#include "part_bucket.h"

#include "tarvex_box_common.h"

#include <fcntl.h>

#include <algorithm>
#include <string>

namespace tarvex::box {

namespace {

constexpr int64_t US_PER_SECOND = 1000000;
constexpr int64_t CAPACITY_US = part_bucket::CAPACITY * part_bucket::INTERVAL_US;

constexpr shared_file_kind BUCKET_FILE = {
    .size = sizeof(int64_t),
    .prepared_size = sizeof(int64_t),
    .prepare = [](void* start) { *static_cast<int64_t*>(start) = 0; },
};

shared_file tarvex_l_box_bucket_open(const char* user_id) noexcept try {
  return shared_file_open(tarvex_i_box_retry_path, (std::string(user_id) + "p").c_str(), BUCKET_FILE);
} catch (...) {
  return {};  // out of memory
}

int64_t tarvex_l_box_now_us() {
  timeval now{};
  tarvex_time_now(&now);
  return int64_t{now.tv_sec} * US_PER_SECOND + now.tv_usec;
}

}  // namespace

int64_t part_bucket_wait(int64_t now_us, int64_t& due_us) {
  constexpr int64_t FURTHEST_US = 2 * CAPACITY_US;
  const int64_t due = due_us - now_us > FURTHEST_US ? now_us + CAPACITY_US : std::max(due_us, now_us);
  due_us = due + part_bucket::INTERVAL_US;
  return std::max<int64_t>(due_us - now_us - CAPACITY_US, 0);
}

part_bucket::part_bucket(const char* user_id) noexcept : file_(tarvex_l_box_bucket_open(user_id)) {}

part_bucket::~part_bucket() {
  shared_file_close(file_, BUCKET_FILE.size);
}

/// \return how long to wait for the part, in microseconds
int64_t part_bucket::draw_ahead() noexcept {
  const std::lock_guard guard(mutex_);
  // A lock that cannot be had (there is no file, or the session is cancelled) leaves a bucket of this object's own.
  const bool locked = shared_file_lock(file_.fd, F_WRLCK, true) == 0;
  const int64_t wait = part_bucket_wait(tarvex_l_box_now_us(), *static_cast<int64_t*>(file_.start));
  if (locked) (void)shared_file_lock(file_.fd, F_UNLCK, false);
  return wait;
}

void part_bucket::draw() noexcept {
  if (file_.start == nullptr) return;
  const int64_t wait = draw_ahead();
  if (wait == 0) return;
  const timespec pause = {.tv_sec = wait / US_PER_SECOND, .tv_nsec = wait % US_PER_SECOND * 1000};
  (void)tarvex_sleep(&pause);
}

}  // namespace tarvex::box
