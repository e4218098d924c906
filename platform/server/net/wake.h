#pragma once

#include "net/event_loop.h"

#include <boost/asio/awaitable.hpp>

#include <chrono>
#include <memory>

namespace tarvex::server {

/// Lets one coroutine wait until something has happened. I/O thread.
///
/// A `notify` that nobody waits for is kept, once, for the next wait. A coroutine that shares its data with others
/// looks at them again after each wait: a kept `notify` may be about what it has seen already.
class wake {
 public:
  explicit wake(event_loop& loop);
  ~wake();
  wake(const wake&) = delete;
  wake& operator=(const wake&) = delete;

  /// Waits for `notify`, or for the end of this object.
  boost::asio::awaitable<void> wait();
  /// \return false when `limit` is over and nothing has happened.
  boost::asio::awaitable<bool> wait_for(std::chrono::milliseconds limit);
  void notify();

 private:
  struct state;
  std::shared_ptr<state> state_;
};

}  // namespace tarvex::server
