#pragma once

#include "net/event_loop.h"
#include "net/socket_address.h"
#include "net/tls_certificate.h"
#include "net/wake.h"

#include <boost/asio/awaitable.hpp>
#include <boost/asio/buffer.hpp>
#include <boost/asio/ip/tcp.hpp>

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <utility>

namespace tarvex::server {

class tls_engine;
struct wire;

/// The bytes of a control connection, and all that is asked of its socket: what lies between socket and lines (TLS) is
/// this class's alone. One read and one write at a time; `close` ends them with an error. I/O thread.
class control_stream {
 public:
  /// What a call brought.
  struct moved {
    boost::system::error_code error;
    std::size_t bytes = 0;
  };

  /// Takes over the socket.
  control_stream(event_loop& loop, int socket);
  ~control_stream();
  control_stream(const control_stream&) = delete;
  control_stream& operator=(const control_stream&) = delete;

  /// \return false when the socket is no connected TCP socket.
  bool open();
  const socket_address& local() const { return local_; }
  const socket_address& peer() const { return peer_; }

  /// Some bytes; `boost::asio::error::eof` when the peer has closed its direction in order. The buffer stays until
  /// then.
  boost::asio::awaitable<moved> read_some(boost::asio::mutable_buffer into);
  /// All bytes, or an error. They stay where they are until then.
  boost::asio::awaitable<moved> write(boost::asio::const_buffer bytes);
  /// From now on reads wait until `secure` is over. What has arrived and was not read is dropped.
  void hold();
  /// The same, of a connection on which the handshake comes first.
  void hold_from_start() { held_ = true; }
  /// Runs the server's side of a TLS handshake; writes wait meanwhile. `hold` comes first. After an error, which a
  /// handshake of more than `limit` is too, the connection can only be closed.
  boost::asio::awaitable<boost::system::error_code> secure(std::unique_ptr<tls_engine> tls,
                                                           std::chrono::milliseconds limit);
  /// Whether the bytes go under TLS.
  bool secured() const;
  /// Has a fresh session ticket go out with what is written next.
  void renew_ticket();
  /// The certificate that the peer has shown; none, or plain: empty.
  certificate_names peer_certificate() const;
  /// TLS's version and cipher, for the log.
  std::string protection() const;

  /// Waits until the connection is reset, or closed here; of use when nothing is read any more.
  boost::asio::awaitable<void> reset();

  /// Closes in order: what was written arrives, though the peer may have sent what nobody reads.
  void shut_down();
  /// Closes at once.
  void close();

  /// Whether the peer has closed its direction or more, though bytes that nobody reads may still lie before its end.
  bool hung_up() const;
  /// The kernel's retransmission time-out (TCP_INFO); 0: not known.
  std::chrono::milliseconds retransmission_timeout() const;

 private:
  event_loop& loop_;
  std::shared_ptr<wire> wire_;
  int raw_;            // until it is open
  bool held_ = false;  // reads wait
  bool secured_ = false;
  bool securing_ = false;   // writes, too
  wake reading_, writing_;  // may go on
  socket_address local_, peer_;
};

}  // namespace tarvex::server
