#pragma once

#include "net/inbound.h"

#include <deque>
#include <mutex>

namespace tarvex::server {

/// Reads on their way from the threads that want bytes to the I/O thread.
class read_intake {
 public:
  enum class answer {
    refused,    ///< no more reads are taken
    taken,      ///< the I/O thread will look by itself
    first_one,  ///< the I/O thread has to be told to `collect`
  };

  /// Any thread.
  [[nodiscard]] answer push(data_read read);
  /// Moves what was pushed behind what `into` holds. I/O thread. \return false when there was nothing, and the next
  /// read will be a first one.
  bool collect(std::deque<data_read>& into);
  /// The same, and takes no more.
  void close(std::deque<data_read>& into);

 private:
  std::mutex mutex_;
  std::deque<data_read> reads_;  // guarded by mutex_
  bool look_due_ = false;        // guarded by mutex_
  bool closed_ = false;          // guarded by mutex_
};

}  // namespace tarvex::server
