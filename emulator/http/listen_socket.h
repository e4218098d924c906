#pragma once

#include "tarvex_common.hpp"

#include <cstdint>
#include <string>

namespace tarvex::emulator {

/// Binds and listens on "127.0.0.1:0", "[::1]:8080" or the like; port 0 takes a free one.
/// Throws std::runtime_error that says what is wrong with the address.
[[nodiscard]] descriptor listen_socket_open(const std::string& address);

/// The address that was taken, as "HOST:PORT". Throws std::runtime_error.
[[nodiscard]] std::string listen_socket_address(int socket);

/// Waits for the next connection; none when the socket was shut down or the system had none to give.
[[nodiscard]] descriptor listen_socket_accept(int socket, std::int64_t idle_timeout_s);

/// Whether the other end of a connection is on this machine.
[[nodiscard]] bool peer_is_loopback(int socket);

}  // namespace tarvex::emulator
