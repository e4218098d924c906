/// \file
/// The rate at which all sessions of one Box user on this host send parts when several are on their way at once.
#pragma once

#include "shared_file.h"

#include <cstdint>
#include <mutex>

namespace tarvex::box {

/// A bucket of 240 parts that fills at 240 a minute: whether Box counts parts among its 240 uploads a minute is not
/// known.
class part_bucket {
 public:
  static constexpr int64_t CAPACITY = 240;
  static constexpr int64_t INTERVAL_US = 250000;

  /// \param user_id  Box user. Without a usable file the bucket is this object's alone.
  explicit part_bucket(const char* user_id) noexcept;
  part_bucket(const part_bucket&) = delete;
  part_bucket& operator=(const part_bucket&) = delete;
  ~part_bucket();

  /// Takes one part out, waiting until there is one; a cancellation ends the wait. Any thread.
  void draw() noexcept;

 private:
  int64_t draw_ahead() noexcept;

  std::mutex mutex_;  // a file's lock is the process's
  shared_file file_;
};

/// What is left of a bucket whose last part drawn ahead of the rate is due at `due_us`, when another one is drawn at
/// `now_us`: takes the new `due_us` and returns how long to wait, in microseconds. A due time that lies further ahead
/// than a bucket can be overdrawn is taken for a clock that was set back.
int64_t part_bucket_wait(int64_t now_us, int64_t& due_us);

}  // namespace tarvex::box
