#pragma once

#include "net/control_channel.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

namespace tarvex::server {

struct data_socket;

/// How the next data connection comes about (RFC 959 section 3.2): the client connects to a port that was announced,
/// or is connected to. I/O thread only.
class data_channel {
 public:
  using port_range = std::optional<std::pair<std::uint16_t, std::uint16_t>>;
  /// Either a connection, or none and what went wrong.
  using opened = std::function<void(std::unique_ptr<data_socket> connection, std::string error)>;

  explicit data_channel(event_loop& loop);
  ~data_channel();
  data_channel(const data_channel&) = delete;
  data_channel& operator=(const data_channel&) = delete;

  /// Listens on `host` for a connection from `peer_host`, on a port that cannot be foretold: a random one of `ports`,
  /// or one that the kernel picks. Replaces an earlier set-up.
  /// \return the port; 0 when none is free.
  std::uint16_t listen(const std::string& host, const std::string& peer_host, const port_range& ports);

  /// Remembers where to connect to, from `local_host`. Replaces an earlier set-up.
  void target(const std::string& local_host, const std::string& peer_host, std::uint16_t port);

  /// Whether the next transfer has a way to its data connection.
  bool ready() const;

  /// Waits up to `limit` for the connection and uses the set-up up. Connections from other addresses are closed and
  /// waited past.
  void open(std::chrono::milliseconds limit, opened call);

  /// Gives the set-up up; a call that `open` promised is not made.
  void close();

 private:
  struct state;
  std::shared_ptr<state> state_;
};

}  // namespace tarvex::server
