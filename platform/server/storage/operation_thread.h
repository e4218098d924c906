#pragma once

#include "tarvex_common.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace tarvex::server {

/// The thread that runs the plug-in's blocking operations, one after the other, bound to a cancellation source.
class operation_thread {
 public:
  /// Throws std::system_error when no thread can be had. `cancel` is borrowed for the thread's life.
  explicit operation_thread(tarvex_cancel_t cancel);
  /// Only after `stop` has returned true.
  ~operation_thread() = default;
  operation_thread(const operation_thread&) = delete;
  operation_thread& operator=(const operation_thread&) = delete;

  void submit(std::function<void()> job);

  /// Takes no more jobs, runs what was submitted and waits for the thread to end, up to `limit`.
  /// \return false when it hangs: the process has to end with _exit then, since the thread may still use what others
  /// own.
  [[nodiscard]] bool stop(std::chrono::milliseconds limit);

 private:
  void run(tarvex_cancel_t cancel);

  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::function<void()>> jobs_;  // guarded by mutex_
  bool stopping_ = false;                   // guarded by mutex_
  bool ended_ = false;                      // guarded by mutex_
  std::thread thread_;
};

}  // namespace tarvex::server
