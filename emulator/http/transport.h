#pragma once

#include "tarvex_common.hpp"

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace tarvex::emulator {

/// One accepted connection, plain or TLS, with blocking calls that give up after the idle time.
class transport {
 public:
  virtual ~transport() = default;

  /// Some bytes, or 0 when the peer has closed, failed or been silent for too long.
  [[nodiscard]] virtual std::size_t read(std::span<char> out) = 0;

  /// Sends all of it; false when the peer is gone or does not read. `more`: further bytes follow at once.
  [[nodiscard]] virtual bool write(std::string_view bytes, bool more) = 0;

  /// Sends a stretch of a file, without a copy through this process where the connection is plain.
  [[nodiscard]] virtual bool send_file(int file, std::int64_t offset, std::int64_t length) = 0;

  /// Waits for so many milliseconds (below 0: for ever), or until the peer goes away or the server stops: then false.
  [[nodiscard]] virtual bool pause(std::int64_t milliseconds) = 0;

  /// Makes the system take in no more than about so many bytes ahead of `read`, from now on.
  virtual void limit_backlog(int bytes) = 0;
};

/// A transport on a connected socket, which it owns.
[[nodiscard]] std::unique_ptr<transport> transport_plain(descriptor socket);

/// `transport::pause` for a socket: false when the peer closes within that time. A half-closed peer (it sent all it
/// had) counts as gone, too.
[[nodiscard]] bool transport_pause(int socket, std::int64_t milliseconds);

/// `transport::limit_backlog` for a socket.
void transport_limit_backlog(int socket, int bytes);

}  // namespace tarvex::emulator
