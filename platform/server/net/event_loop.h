#pragma once

#include <boost/asio/awaitable.hpp>

#include <chrono>
#include <functional>
#include <memory>

namespace boost::asio {
class io_context;
}

namespace tarvex::server {

/// The I/O thread's event loop. Everything that is said to run on the I/O thread runs inside `run`.
class event_loop {
 public:
  event_loop();
  ~event_loop();
  event_loop(const event_loop&) = delete;
  event_loop& operator=(const event_loop&) = delete;

  /// Runs until `stop`. What a handler or a spawned coroutine throws leaves here.
  void run();
  /// Ends `run` after the handler that is running. Any thread.
  void stop();
  /// Runs `work` on the I/O thread, after what was posted before it. Any thread.
  void post(std::function<void()> work);
  /// Runs a coroutine on the I/O thread: on that thread at once up to its first wait, from any other as with `post`.
  /// One that still waits when the loop is destroyed is destroyed with it.
  void spawn(boost::asio::awaitable<void> work);
  /// Calls `handler` each time the process gets the signal, as long as the loop runs. I/O thread.
  void on_signal(int signal, std::function<void()> handler);

  boost::asio::io_context& context();

 private:
  struct state;
  std::unique_ptr<state> state_;
};

/// One wait at a time; I/O thread.
class loop_timer {
 public:
  explicit loop_timer(event_loop& loop);
  ~loop_timer();
  loop_timer(const loop_timer&) = delete;
  loop_timer& operator=(const loop_timer&) = delete;

  /// Calls `expired` after `delay`; takes the place of an earlier start. Not called once cancelled or destroyed.
  void start(std::chrono::milliseconds delay, std::function<void()> expired);
  void cancel();

 private:
  struct state;
  std::shared_ptr<state> state_;
};

}  // namespace tarvex::server
