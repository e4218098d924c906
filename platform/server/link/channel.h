#pragma once

#include "tarvex_common.hpp"

#include <string>
#include <string_view>
#include <utility>

namespace tarvex::server {

/// Two ends of a connection inside this host that keeps messages apart (unix(7), SOCK_SEQPACKET), close-on-exec. None,
/// with errno set, when the process is out of something.
[[nodiscard]] std::pair<descriptor, descriptor> link_pair();

/// Sends one message, with a descriptor that the other end gets a copy of (-1: none). Does not wait for room.
/// \return errno, EAGAIN where the peer has not read for long; 0: sent.
[[nodiscard]] int link_send(int end, std::string_view frame, int passed = -1);

/// What came of a read.
struct link_received {
  int error = 0;      ///< errno: EAGAIN: nothing is there; ECONNRESET: the other end is gone, EMSGSIZE: too long
  std::string frame;  ///< without an error
  descriptor passed;  ///< that came along
};

/// Takes the next message, without waiting.
[[nodiscard]] link_received link_receive(int end);

}  // namespace tarvex::server
