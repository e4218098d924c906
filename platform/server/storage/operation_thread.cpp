#include "storage/operation_thread.h"

#include <utility>

namespace tarvex::server {

operation_thread::operation_thread(tarvex_cancel_t cancel) : thread_([this, cancel] { run(cancel); }) {}

void operation_thread::submit(std::function<void()> job) {
  {
    const std::lock_guard lock(mutex_);
    jobs_.push_back(std::move(job));
  }
  changed_.notify_all();
}

bool operation_thread::stop(std::chrono::milliseconds limit) {
  if (!thread_.joinable()) return true;
  {
    std::unique_lock lock(mutex_);
    stopping_ = true;
    changed_.notify_all();
    if (!changed_.wait_for(lock, limit, [this] { return ended_; })) return false;
  }
  thread_.join();
  return true;
}

void operation_thread::run(tarvex_cancel_t cancel) {
  tarvex_cancel_bind(cancel);
  std::unique_lock lock(mutex_);
  while (true) {
    changed_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
    if (jobs_.empty()) break;
    {
      const std::function<void()> job = std::move(jobs_.front());
      jobs_.pop_front();
      lock.unlock();
      job();
    }
    lock.lock();
  }
  tarvex_cancel_bind(nullptr);
  ended_ = true;
  changed_.notify_all();
}

}  // namespace tarvex::server
