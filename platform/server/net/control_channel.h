#pragma once

#include "net/event_loop.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace tarvex::server {

/// One end of a TCP connection. `host` is numeric; an IPv4 address in IPv6 clothes is shown as IPv4.
struct socket_address {
  std::string host;
  std::uint16_t port = 0;
  bool ipv6 = false;
  bool loopback = false;
};

/// One command line as it came.
struct control_line {
  std::string text;
  bool too_long = false;  ///< the text was dropped
  bool aborted = false;   ///< an ABOR that has cancelled an operation, and is yet to be answered
};

/// The control connection: lines in, replies out. I/O thread only.
///
/// Reading stops while QUEUED_LINES_MAX lines wait or the peer is slow to read replies, and goes on with `resume`; a
/// connection that breaks while reading is stopped is noticed all the same.
class control_channel {
 public:
  static constexpr std::size_t QUEUED_LINES_MAX = 64;
  static constexpr std::size_t WAITING_OUTPUT_MAX = 64 * 1024;

  struct events {
    std::function<void()> on_queued;  ///< lines were queued
    std::function<void()> on_lost;    ///< once, when the peer is gone
  };

  /// Takes over the socket.
  control_channel(event_loop& loop, int socket);
  ~control_channel();
  control_channel(const control_channel&) = delete;
  control_channel& operator=(const control_channel&) = delete;

  /// \return false when the socket is no connected TCP socket.
  bool start(events handlers);

  /// Whether the peer is there, as far as the kernel knows by now.
  bool present() const;

  const socket_address& local() const;
  const socket_address& peer() const;

  /// The oldest queued line; nothing when there is none.
  std::optional<control_line> next_line();
  /// All queued lines, the oldest first.
  std::deque<control_line>& lines();
  /// Reads on, when there is room.
  void resume();

  /// Sends text as it stands. `written` is called once it was handed to the kernel, or when the connection is lost.
  void send(std::string text, std::function<void()> written = {});

  /// Reads nothing more, sends what is waiting, closes, and then calls `closed` (at once when the peer is gone).
  void finish(std::function<void()> closed);

 private:
  struct state;
  std::shared_ptr<state> state_;
};

}  // namespace tarvex::server
