#include "net/wake.h"

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>

#include <utility>

namespace tarvex::server {

namespace asio = boost::asio;
using time_point = asio::steady_timer::time_point;

/// A wait holds it, so that it outlives the `wake`.
struct wake::state {
  explicit state(event_loop& loop) : timer(loop.context()) {}

  asio::steady_timer timer;  // a wait ends when it is cancelled
  bool notified = false;

  static asio::awaitable<bool> wait(std::shared_ptr<state> self, time_point until) {
    if (!self->notified) {
      self->timer.expires_at(until);
      (void)co_await self->timer.async_wait(asio::as_tuple(asio::use_awaitable));
    }
    co_return std::exchange(self->notified, false);
  }

  static asio::awaitable<void> wait(std::shared_ptr<state> self) {
    (void)co_await wait(std::move(self), time_point::max());
  }

  void notify() {
    notified = true;
    timer.cancel();
  }
};

wake::wake(event_loop& loop) : state_(std::make_shared<state>(loop)) {}

wake::~wake() {
  state_->notify();
}

asio::awaitable<void> wake::wait() {
  return state::wait(state_);
}

asio::awaitable<bool> wake::wait_for(std::chrono::milliseconds limit) {
  return state::wait(state_, std::chrono::steady_clock::now() + limit);
}

void wake::notify() {
  state_->notify();
}

}  // namespace tarvex::server
