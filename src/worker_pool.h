/// \file
/// Threads that make requests for a transfer, each with connections of its own.
#pragma once

#include "tarvex_common.h"

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace tarvex::box {

/// Runs jobs on threads that live as long as the pool, so that their connections do. A thread is started when a job
/// finds none idle. The threads are bound to the cancellation source of the thread that made the pool.
class worker_pool {
 public:
  explicit worker_pool(size_t most_threads);
  worker_pool(const worker_pool&) = delete;
  worker_pool& operator=(const worker_pool&) = delete;
  /// Waits for all jobs, those that have not begun included.
  ~worker_pool();

  /// Hands over a job, which must not throw. Throws std::bad_alloc, or std::system_error when not even one thread can
  /// be had; the job is not run then.
  void run(std::function<void()> job);

 private:
  void work();

  const size_t most_threads_;
  const tarvex_cancel_t cancel_;
  std::mutex mutex_;  // guards what follows but the threads, which only the owner starts and joins
  std::condition_variable changed_;
  std::deque<std::function<void()>> jobs_;
  size_t idle_ = 0;
  bool ending_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace tarvex::box
