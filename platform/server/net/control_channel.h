#pragma once

#include "net/control_line.h"
#include "net/event_loop.h"
#include "net/socket_address.h"
#include "net/tls_certificate.h"

#include <boost/asio/awaitable.hpp>
#include <boost/system/error_code.hpp>

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace tarvex::server {

class tls_engine;

/// The control connection: lines in, replies out. I/O thread only.
///
/// Lines are read as they come, also while a command runs, so that an ABOR is noticed behind any number of them. They
/// queue up to QUEUED_BYTES_MAX; then one `overrun` ends the queue, and of what follows only the first ABOR is kept. A
/// client that loses lines cannot be served on: a dropped CWD would give the lines after it another meaning.
///
/// States: present; half closed (the peer has sent FIN: it says nothing more, and may still read replies); lost (reset,
/// or takes no replies); finishing (nothing more is read).
class control_channel {
 public:
  /// Of lines that wait, a line counting with its record.
  static constexpr std::size_t QUEUED_BYTES_MAX = 1 << 20;
  /// Of replies that the peer does not take, before its next line waits.
  static constexpr std::size_t WAITING_OUTPUT_MAX = 64 * 1024;
  static constexpr std::size_t LINE_LENGTH = 8192;

  struct events {
    std::function<void()> on_queued;  ///< lines were queued, or may be taken again, and nobody waits in `next_line`
    std::function<void()> on_half_closed;  ///< once, after the last lines were queued; may be empty
    std::function<void()> on_lost;         ///< once, when the peer is gone
  };

  /// Takes over the socket. Lines of more than `line_length` bytes, their end included, are dropped.
  control_channel(event_loop& loop, int socket, std::size_t line_length = LINE_LENGTH);
  ~control_channel();
  control_channel(const control_channel&) = delete;
  control_channel& operator=(const control_channel&) = delete;

  /// \param held  nothing is read before `secure`
  /// \return false when the socket is no connected TCP socket.
  bool start(events handlers, bool held = false);

  /// Goes on under TLS, as its server. What the client has sent so far is dropped, lines that wait included: whoever
  /// sits between could have put them there. Then goes `invitation`, and the handshake has to be over within `limit`.
  /// No invitation: the client begins by itself, on a channel that was held from its start.
  /// \return an error after which nothing is to be said any more: the connection can only be finished.
  boost::asio::awaitable<boost::system::error_code> secure(std::unique_ptr<tls_engine> tls, std::string invitation,
                                                           std::chrono::milliseconds limit);
  bool secured() const;
  /// Has a fresh session ticket go out with the next reply; clients use one up with each data connection.
  void renew_ticket();
  /// The certificate that the client has shown under TLS; none: empty.
  certificate_names peer_certificate() const;
  /// TLS's version and cipher, for people; empty: plain.
  std::string protection() const;

  /// Whether the peer is there and may say more, as far as the kernel knows by now.
  bool present() const;
  /// Whether the peer has closed its direction, and may still read replies.
  bool half_closed() const;
  /// How long the kernel waits before it sends something to the peer again (TCP_INFO); 0: not known.
  std::chrono::milliseconds retransmission_timeout() const;

  const socket_address& local() const;
  const socket_address& peer() const;

  /// Waits for the next line, and until the peer takes its replies. One caller at a time.
  /// \return nothing when there will be none: the peer is lost, has half closed and all its lines were taken, or
  /// `finish` was called.
  boost::asio::awaitable<std::optional<control_line>> next_line();
  /// The oldest queued line at once; nothing when there is none or replies pile up.
  std::optional<control_line> take_line();
  /// All queued lines, the oldest first.
  std::deque<control_line>& lines();

  /// Sends text as it stands. `written` is called once it was handed to the kernel, or when the connection is lost.
  void send(std::string text, std::function<void()> written = {});

  /// Reads nothing more, sends what is waiting, closes, and then calls `closed` (at once when the peer is gone).
  void finish(std::function<void()> closed);

 private:
  struct state;
  std::shared_ptr<state> state_;
};

}  // namespace tarvex::server
