#include "worker_pool.h"

#include <system_error>
#include <utility>

namespace tarvex::box {

worker_pool::worker_pool(size_t most_threads) : most_threads_(most_threads), cancel_(tarvex_cancel_bound()) {
  threads_.reserve(most_threads);
}

worker_pool::~worker_pool() {
  {
    const std::lock_guard lock(mutex_);
    ending_ = true;
    changed_.notify_all();
  }
  for (std::thread& thread : threads_) thread.join();
}

void worker_pool::run(std::function<void()> job) {
  const std::lock_guard lock(mutex_);
  jobs_.push_back(std::move(job));
  changed_.notify_one();
  if (jobs_.size() <= idle_ || threads_.size() == most_threads_) return;
  try {
    threads_.emplace_back([this] { work(); });
  } catch (const std::system_error&) {  // fewer threads will do
    if (!threads_.empty()) return;
    jobs_.pop_back();
    throw;
  }
}

void worker_pool::work() {
  tarvex_cancel_bind(cancel_);
  std::unique_lock lock(mutex_);
  for (;;) {
    ++idle_;
    changed_.wait(lock, [this] { return ending_ || !jobs_.empty(); });
    --idle_;
    if (jobs_.empty()) return;
    const std::function<void()> job = std::move(jobs_.front());
    jobs_.pop_front();
    lock.unlock();
    job();
    lock.lock();
  }
}

}  // namespace tarvex::box
