#pragma once

#include <boost/asio/awaitable.hpp>
#include <boost/asio/buffer.hpp>
#include <boost/asio/ip/tcp.hpp>

#include <cstddef>
#include <memory>
#include <span>

namespace tarvex::server {

/// A connected data connection, plain or under TLS: what lies between socket and bytes is this class's alone. One read
/// and one write at a time; a wait outlives the object, and `close` ends it with an error. I/O thread.
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

  /// Some bytes; `boost::asio::error::eof` when the peer has ended its direction in order (FIN; under TLS
  /// close_notify), `boost::asio::ssl::error::stream_truncated` for a FIN without close_notify. The buffer stays until
  /// then.
  boost::asio::awaitable<moved> read_some(boost::asio::mutable_buffer into);
  /// The same without a wait: `boost::asio::error::would_block` when nothing is there.
  moved read_now(boost::asio::mutable_buffer into);
  /// Waits until `read_now` is worth a try. For readers that choose the buffer once there is something to put in it.
  boost::asio::awaitable<boost::system::error_code> readable();

  /// Sends some of the buffers, the first ones first; buffers and bytes stay until then. Bytes that were taken may wait
  /// here under TLS, up to MAX_WAITING: no bytes and no error means that of those some went out, so that the call makes
  /// progress. `end_sending` sends the rest.
  boost::asio::awaitable<moved> write_some(std::span<const boost::asio::const_buffer> buffers);
  static constexpr std::size_t MAX_WAITING = 256 * 1024;
  /// Whether bytes wait that `write_some` has taken. It may be called with no buffers to send some of them.
  bool unsent() const;
  /// Sends what waits, close_notify under TLS, and FIN. \return an error when not all of it went out.
  boost::asio::awaitable<boost::system::error_code> end_sending();

  /// For its options, and to wait for a reset. Bytes that are read here are the wire's.
  boost::asio::ip::tcp::socket& transport();
  /// Closes at once; what has arrived is dropped first, so that the peer gets a FIN and no reset.
  void close();

 private:
  struct state;
  std::shared_ptr<state> state_;
};

/// Reads and drops what has arrived, so that the close that follows sends FIN and no reset.
void socket_drain(boost::asio::ip::tcp::socket& socket);

}  // namespace tarvex::server
