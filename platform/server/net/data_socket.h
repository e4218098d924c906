#pragma once

#include "net/tls_certificate.h"

#include <boost/asio/awaitable.hpp>
#include <boost/asio/buffer.hpp>
#include <boost/asio/ip/tcp.hpp>

#include <cstddef>
#include <memory>
#include <span>

namespace tarvex::server {

class tls_engine;
struct wire;

/// A connected data connection, plain or under TLS. One read and one write at a time; a wait outlives the object, and
/// `close` ends it with an error. I/O thread.
class data_socket {
 public:
  /// What a call brought.
  struct moved {
    boost::system::error_code error;
    std::size_t bytes = 0;
  };

  explicit data_socket(boost::asio::ip::tcp::socket plain);
  ~data_socket();
  data_socket(data_socket&& other) noexcept;
  data_socket& operator=(data_socket&& other) noexcept;

  /// Runs the server's side of a TLS handshake, before anything else. After an error it can only be closed.
  boost::asio::awaitable<boost::system::error_code> secure(std::unique_ptr<tls_engine> tls);
  /// Whether the bytes go under TLS.
  bool secured() const;
  /// Whether the handshake resumed the session of the control connection.
  bool resumed() const;
  /// The certificate that the client has shown; none, or plain: empty.
  certificate_names peer_certificate() const;

  /// Some bytes; `boost::asio::error::eof` when the peer has ended its direction in order (FIN; under TLS
  /// close_notify), `boost::asio::ssl::error::stream_truncated` for a FIN without close_notify. The buffer stays until
  /// then.
  boost::asio::awaitable<moved> read_some(boost::asio::mutable_buffer into);
  /// The same without a wait: `boost::asio::error::would_block` when nothing is there.
  moved read_now(boost::asio::mutable_buffer into);
  /// Waits until `read_now` is worth a try. For readers that choose the buffer once there is something to put in it.
  boost::asio::awaitable<boost::system::error_code> readable();

  /// Sends some of the buffers, the first ones first; buffers and bytes stay until then. Under TLS bytes that were
  /// taken may wait here, a few hundred KiB at most: the call takes none and brings no error when it sent some of
  /// those instead. `end_sending` sends the rest.
  boost::asio::awaitable<moved> write_some(std::span<const boost::asio::const_buffer> buffers);
  /// Sends some of the bytes without a wait; `boost::asio::error::would_block` when none go. The one call that any
  /// thread may make, as long as nobody else writes to the connection or closes it meanwhile.
  moved write_now(boost::asio::const_buffer bytes);
  /// Whether bytes wait that `write_some` has taken. It may be called with no buffers to send some of them.
  bool unsent() const;
  /// Sends what waits, close_notify under TLS, and FIN. \return an error when not all of it went out.
  boost::asio::awaitable<boost::system::error_code> end_sending();

  /// For its options, and to wait for a reset. Bytes that are read here are the wire's.
  boost::asio::ip::tcp::socket& transport();
  /// Closes at once; what has arrived is dropped first, so that the peer gets a FIN and no reset.
  void close();

 private:
  std::shared_ptr<wire> wire_;
};

}  // namespace tarvex::server
