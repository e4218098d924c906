#include "net/event_loop.h"

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>

#include <exception>
#include <utility>

namespace tarvex::server {

namespace asio = boost::asio;
using boost::system::error_code;

namespace {

asio::awaitable<void> watch(std::unique_ptr<asio::signal_set> signals, std::function<void()> handler) {
  while (true) {
    const auto [error, signal] = co_await signals->async_wait(asio::as_tuple(asio::use_awaitable));
    if (error) co_return;
    handler();
  }
}

}  // namespace

struct event_loop::state {
  asio::io_context context{1};
  asio::executor_work_guard<asio::io_context::executor_type> work{context.get_executor()};
};

event_loop::event_loop() : state_(std::make_unique<state>()) {}
event_loop::~event_loop() = default;

void event_loop::run() {
  state_->context.run();
}
void event_loop::stop() {
  state_->context.stop();
}
void event_loop::post(std::function<void()> work) {
  asio::post(state_->context, std::move(work));
}
void event_loop::spawn(asio::awaitable<void> work) {
  asio::co_spawn(state_->context, std::move(work), [](const std::exception_ptr& thrown) {
    if (thrown) std::rethrow_exception(thrown);
  });
}
asio::io_context& event_loop::context() {
  return state_->context;
}

void event_loop::on_signal(int signal, std::function<void()> handler) {
  // Made here and not in the coroutine: the signal is caught from now on, though the loop may not run yet.
  spawn(watch(std::make_unique<asio::signal_set>(state_->context, signal), std::move(handler)));
}

struct loop_timer::state {
  asio::steady_timer timer;
  std::function<void()> expired;
  unsigned generation = 0;  // an expiry may be on its way already when the timer is started anew
};

loop_timer::loop_timer(event_loop& loop)
    : state_(std::make_shared<state>(state{asio::steady_timer(loop.context()), {}, 0})) {}

loop_timer::~loop_timer() {
  cancel();
}

void loop_timer::start(std::chrono::milliseconds delay, std::function<void()> expired) {
  const unsigned mine = ++state_->generation;
  state_->expired = std::move(expired);
  state_->timer.expires_after(delay);
  state_->timer.async_wait([self = state_, mine](error_code error) {
    if (error || self->generation != mine) return;
    const auto call = std::exchange(self->expired, nullptr);
    call();
  });
}

void loop_timer::cancel() {
  ++state_->generation;
  state_->expired = nullptr;
  state_->timer.cancel();
}

}  // namespace tarvex::server
