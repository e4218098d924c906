#pragma once

#include "net/data_protection.h"
#include "net/event_loop.h"

#include <boost/asio/awaitable.hpp>
#include <boost/asio/ip/address.hpp>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>

namespace tarvex::server {

class data_socket;

/// Either a connection, or none and what went wrong, as a reply. Whoever owns one includes net/data_socket.h.
struct data_connection {
  std::unique_ptr<data_socket> socket;
  std::string error;
  int code = 425;
};

/// How the next data connection comes about (RFC 959 section 3.2): the client connects to a port that was announced,
/// or is connected to. I/O thread only.
class data_channel {
 public:
  using port_range = std::optional<std::pair<std::uint16_t, std::uint16_t>>;

  explicit data_channel(event_loop& loop);
  ~data_channel();
  data_channel(const data_channel&) = delete;
  data_channel& operator=(const data_channel&) = delete;

  /// Listens on `host` for a connection from `peer`, on a port that cannot be foretold: a random one of `ports`, or one
  /// that the kernel picks. Replaces an earlier set-up.
  /// \return the port; 0 when none is free.
  std::uint16_t listen(const boost::asio::ip::address& host, const boost::asio::ip::address& peer,
                       const port_range& ports);

  /// Remembers where to connect to, from the address `local`. Replaces an earlier set-up.
  void target(const boost::asio::ip::address& local, const boost::asio::ip::address& peer, std::uint16_t port);

  /// How data connections are protected from now on.
  data_protection& protection() { return protection_; }

  /// Whether the next transfer has a way to its data connection.
  bool ready() const;

  /// Waits up to `limit` for the connection, protected as it is to be, and uses the set-up up. Connections from other
  /// addresses are closed and waited past. `close`, `listen` and `target` end the wait with an error.
  boost::asio::awaitable<data_connection> open(std::chrono::milliseconds limit);

  /// The same without using it up, for transfers on several connections, until `close`. Where the client connects, one
  /// at a time is waited for.
  /// \param limit  nothing: as long as it takes
  boost::asio::awaitable<data_connection> open_another(std::optional<std::chrono::milliseconds> limit);

  /// Whether the client is to connect; of one that is ready.
  bool passive() const;

  /// Send and receive buffers of connections from now on; 0: as the kernel sees fit.
  void set_buffers(int bytes);

  /// Gives the set-up up.
  void close();

 private:
  struct setup;
  event_loop& loop_;
  std::shared_ptr<setup> setup_;
  int buffer_bytes_ = 0;
  data_protection protection_;
};

}  // namespace tarvex::server
