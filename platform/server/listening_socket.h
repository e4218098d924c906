#pragma once

#include "config/listen_address.h"
#include "tarvex_common.hpp"

#include <string>

namespace tarvex::server {

/// Opens a TCP socket that listens on an address, without blocking; IPv6 sockets take IPv6 only, so that both families
/// can have the same port.
/// \return the error as text; empty when the socket listens.
[[nodiscard]] std::string listening_socket_open(const listen_address& address, descriptor& out);

/// Where a socket stands, and where its peer does; 0.0.0.0 and port 0 when the connection has ended.
[[nodiscard]] listen_address socket_local_address(const descriptor& socket);
[[nodiscard]] listen_address socket_peer_address(const descriptor& socket);

/// Whether an error of accept is one of the connection, which ended before it was taken, and not a lack of this process
/// or machine.
[[nodiscard]] bool accept_error_is_peers(int error);

}  // namespace tarvex::server
