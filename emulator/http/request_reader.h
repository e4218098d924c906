#pragma once

#include "http/message.h"
#include "http/transport.h"

#include <memory>

namespace tarvex::emulator {

enum class reading { READ, CLOSED, NOT_HTTP, TOO_LARGE };

/// Reads one request after another from a connection, with keep-alive, bodies by length or chunked, and
/// "Expect: 100-continue", which is answered when the body is first read.
class request_reader {
 public:
  explicit request_reader(transport& from);
  ~request_reader();

  /// Reads the head of the next request; its `body` stays valid until the next call.
  [[nodiscard]] reading next(request& into);

  /// Reads off what is left of the body, up to so many bytes. False when the connection cannot go on after that.
  [[nodiscard]] bool drain(std::uint64_t most_bytes);

  /// Whether the client wants to send further requests on this connection.
  [[nodiscard]] bool keep_alive() const;

 private:
  class state;
  std::unique_ptr<state> state_;
};

}  // namespace tarvex::emulator
