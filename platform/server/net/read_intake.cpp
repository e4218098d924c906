#include "net/read_intake.h"

#include <utility>

namespace tarvex::server {

read_intake::answer read_intake::push(data_read read) {
  const std::lock_guard lock(mutex_);
  if (closed_) return answer::refused;
  reads_.push_back(std::move(read));
  return std::exchange(look_due_, true) ? answer::taken : answer::first_one;
}

bool read_intake::collect(std::deque<data_read>& into) {
  const std::lock_guard lock(mutex_);
  look_due_ = !reads_.empty();
  for (data_read& read : reads_) into.push_back(std::move(read));
  reads_.clear();
  return look_due_;
}

void read_intake::close(std::deque<data_read>& into) {
  (void)collect(into);
  const std::lock_guard lock(mutex_);
  closed_ = true;
  for (data_read& read : reads_) into.push_back(std::move(read));
  reads_.clear();
}

}  // namespace tarvex::server
