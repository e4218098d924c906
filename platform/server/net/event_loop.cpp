#include "net/event_loop.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>

#include <csignal>
#include <utility>

namespace tarvex::server {

namespace asio = boost::asio;
using boost::system::error_code;

struct event_loop::state {
  asio::io_context context{1};
  asio::executor_work_guard<asio::io_context::executor_type> work{context.get_executor()};
  asio::signal_set signals{context};
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
asio::io_context& event_loop::context() {
  return state_->context;
}

void event_loop::on_termination(std::function<void()> handler) {
  error_code error;
  state_->signals.add(SIGTERM, error);
  if (error) return;
  state_->signals.async_wait([handler = std::move(handler)](error_code failed, int) {
    if (!failed) handler();
  });
}

struct loop_timer::state {
  asio::steady_timer timer;
  std::function<void()> expired;
  unsigned generation = 0;
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
