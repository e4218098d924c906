#pragma once

#include "net/tls_engine.h"

#include <boost/asio/awaitable.hpp>
#include <boost/asio/buffer.hpp>
#include <boost/asio/ip/tcp.hpp>

#include <cstddef>
#include <memory>
#include <span>

namespace tarvex::server {

/// A TCP connection and the TLS on it, if any: the one place that knows the difference. Waits take the pointer that
/// owns it, since they may outlive everybody else; `close` ends them with an error. One read and one write at a time.
/// I/O thread.
struct wire {
  using moved = tls_engine::moved;
  using pointer = std::shared_ptr<wire>;

  explicit wire(boost::asio::ip::tcp::socket connected) : socket(std::move(connected)) {}

  /// Some bytes, without a wait: `would_block` when nothing is there, `eof` after an end in order, and
  /// `boost::asio::ssl::error::stream_truncated` after a FIN where TLS's close_notify was due.
  moved read_now(boost::asio::mutable_buffer into);
  /// Waits until `read_now` is worth a try.
  static boost::asio::awaitable<boost::system::error_code> readable(pointer self);

  /// Takes some of the buffers, and sends some bytes. Under TLS it first sends what it has taken before, and takes
  /// nothing until all of that is out.
  static boost::asio::awaitable<moved> write_some(pointer self, std::span<const boost::asio::const_buffer> buffers);
  /// Sends some of the bytes, without a wait: `would_block` when none go.
  moved write_now(boost::asio::const_buffer bytes);
  /// Whether bytes wait that were taken.
  bool unsent() const { return tls && tls->unsent(); }
  /// Sends what waits, and the end. \return an error when not all that was taken went out; whether the end arrives is
  /// not looked at.
  static boost::asio::awaitable<boost::system::error_code> end_sending(pointer self);
  /// The same, as far as it goes without a wait.
  void end_now();

  /// Runs the server's side of a TLS handshake; nobody may read or write meanwhile. After an error nothing can be done
  /// but to close.
  static boost::asio::awaitable<boost::system::error_code> secure(pointer self, std::unique_ptr<tls_engine> with);

  /// Drops what has arrived, so that the peer gets a FIN and no reset, and closes.
  void close();
  void close_at_once();

  boost::asio::ip::tcp::socket socket;  ///< never blocks once something was read or written
  std::unique_ptr<tls_engine> tls;      ///< null: plain
};

/// Reads and drops what has arrived.
void socket_drain(boost::asio::ip::tcp::socket& socket);

}  // namespace tarvex::server
