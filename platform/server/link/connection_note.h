#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tarvex::server {

/// What the listener and the broker tell each other of a session's connection to the broker.
///
/// The listener hands each connection over with a note, and all of them again to a broker that takes the place of one
/// that has ended: it keeps a copy of each connection's other end, so that sessions notice nothing but a pause. Which
/// account a connection belongs to is the broker's to say, and the listener's to keep for the next broker; a session is
/// not asked.
struct connection_note {
  std::uint64_t id = 0;      ///< of the connection; 0: the broker is ready, or cannot start when there is an error
  std::string address = {};  ///< of the session's client, numeric
  std::string account = {};  ///< that it is bound to; empty: to none yet
  bool logged_in = false;    ///< the account is logged in there now
  std::string error = {};
};

/// As a frame; empty when memory is out.
[[nodiscard]] std::string note_encode(const connection_note& note);
[[nodiscard]] std::optional<connection_note> note_decode(std::string_view frame);

}  // namespace tarvex::server
