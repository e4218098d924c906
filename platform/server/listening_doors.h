#pragma once

#include "config/configuration.h"
#include "tarvex_common.hpp"

#include <string>
#include <vector>

namespace tarvex::server {

/// A socket that clients come in by.
struct listening_door {
  descriptor socket;
  bool implicit_tls = false;  ///< TLS from the first byte
};

/// Opens a door for every address of `listen` and `implicit_listen`, in this order. Sockets that the service manager
/// hands over serve the addresses that they stand at; the rest is bound here. All or none: a server that misses one of
/// them would look as if it ran.
/// \return what went wrong, also a socket that was handed over for no address; empty: all are open.
[[nodiscard]] std::string listening_doors_open(const configuration& config, std::vector<listening_door>& out);

/// Prints "listening on HOST:PORT" on standard output, a line for each.
void listening_doors_announce(const std::vector<listening_door>& doors);

}  // namespace tarvex::server
