#pragma once

#include "net/tls_certificate.h"
#include "tarvex_common.hpp"

#include <openssl/types.h>
#include <boost/asio/buffer.hpp>
#include <boost/system/error_code.hpp>

#include <cstddef>
#include <memory>
#include <span>
#include <string>

namespace tarvex::server {

/// The server's side of TLS on one connection, without any wait: it reads what the socket has, and what it has to send
/// gathers here until `send_now` has got rid of it. Not for several threads.
class tls_engine {
 public:
  /// What a call brought.
  struct moved {
    boost::system::error_code error;
    std::size_t bytes = 0;
  };

  /// How much memory a connection is worth.
  enum class kind {
    talk,  ///< little traffic for a long time: memory is given back in between
    bulk   ///< much at once
  };

  /// Plain bytes that `write` takes at most.
  static constexpr std::size_t WRITE_MAX = 128 * 1024;

  /// Takes over a connection of OpenSSL that has no socket yet. Throws std::bad_alloc.
  tls_engine(SSL* connection, kind use);
  ~tls_engine();
  tls_engine(const tls_engine&) = delete;
  tls_engine& operator=(const tls_engine&) = delete;

  /// Goes over a socket, which does not block, and is the caller's.
  void attach(int socket);

  /// Goes on with the handshake. `would_block`: once the socket can be read it goes on. After an error an alert may
  /// wait that tells the peer why.
  boost::system::error_code handshake();

  /// Reads what is there: `would_block` when that is nothing, `eof` after the peer's close_notify, `stream_truncated`
  /// after a FIN without it. Either end is answered with close_notify, since peers wait for it.
  moved read(boost::asio::mutable_buffer into);
  /// Whether `read` may bring something though nothing new arrives.
  bool readable() const;

  /// Puts up to WRITE_MAX bytes into records, which then wait to be sent. The buffers' bytes are copied.
  moved write(std::span<const boost::asio::const_buffer> buffers);
  /// Puts the end of what is sent behind it.
  void close_notify();
  /// Sends what waits, as far as the socket takes it; `would_block` when some of it is left.
  moved send_now();
  /// Whether something waits.
  bool unsent() const;

  /// Has another session ticket go out with what is written next; where the version knows no such thing, nothing.
  void renew_ticket();

  /// Whether the handshake resumed a session whose ticket this server has issued.
  bool resumed() const;
  /// The certificate that the peer has shown, and that was verified; none: empty.
  certificate_names peer_certificate() const;
  /// Version and cipher, for the log.
  std::string description() const;

 private:
  struct state;
  std::unique_ptr<state> state_;
};

}  // namespace tarvex::server
