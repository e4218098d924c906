#pragma once

#include "http/server.h"
#include "http/transport.h"

namespace tarvex::emulator {

/// What is the same for all requests of a connection.
struct connection_facts {
  bool secure = false;    // TLS
  bool loopback = false;  // the client is on this machine
};

/// Serves the requests of one connection, one after another, until either side ends it.
void connection_serve(transport& bare, connection_facts facts, const request_handler& handler);

}  // namespace tarvex::emulator
