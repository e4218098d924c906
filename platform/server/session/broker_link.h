#pragma once

#include "link/messages.h"
#include "net/event_loop.h"
#include "tarvex_common.hpp"

#include <boost/asio/awaitable.hpp>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace tarvex::server {

/// A session's connection to the broker. A broker that ends is replaced by another on the same connection, which is
/// told again what was asked and not answered: who asks notices a pause.
class broker_link {
 public:
  /// \param socket  the session's end; none: nobody can log in
  broker_link(event_loop& loop, descriptor socket);
  ~broker_link();
  broker_link(const broker_link&) = delete;
  broker_link& operator=(const broker_link&) = delete;

  /// The broker wants the session to end; `text` is for the client. I/O thread.
  void on_end(std::function<void(const std::string& text)> call);

  /// Asks whether the client is who it says. I/O thread. \return `unavailable` when no broker answers in time.
  boost::asio::awaitable<broker_says> log_in(session_says who);

  /// Asks for the account's credential and waits for it; a cancellation of the calling thread ends the wait. Any other
  /// thread than the I/O thread.
  /// \param refused  generation of a token that Box has refused; 0: none
  broker_says credential(bool renewal, std::uint64_t refused);

  /// Says that the token of that generation has served. Any thread.
  void note_used(std::uint64_t generation);
  /// Says that the client has logged out. Any thread.
  void note_logged_out();

 private:
  struct state;
  std::shared_ptr<state> state_;
};

}  // namespace tarvex::server
