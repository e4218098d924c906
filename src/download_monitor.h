/// \file
/// Where the threads of one download meet.
#pragma once

#include "tarvex_common.hpp"

#include <condition_variable>
#include <mutex>

namespace tarvex::box {

/// One lock for all that the threads of a download share; each object that takes a monitor says what it guards with it.
struct download_monitor {
  std::mutex mutex;
  std::condition_variable changed;  ///< notified under the mutex, so that whoever waits may end the download next

  // Guarded by the mutex.
  bool stopped = false;         ///< nothing more is begun, and what is on its way ends
  bool ranges_ignored = false;  ///< why: the download address does not give parts of the file
  owned_result failure;         ///< why, else; success: all is over

  /// Stops, and keeps the first failure. \param why  taken over. The mutex is held.
  void stop(tarvex_result_t why) {
    owned_result reason(why);
    if (!stopped) failure = std::move(reason);
    stopped = true;
    changed.notify_all();
  }
};

}  // namespace tarvex::box
