#pragma once

#include "config/configuration.h"
#include "storage/plugin.h"

namespace tarvex::server {

/// Listens on every configured address, prints "listening on HOST:PORT" on standard output once for each (IPv6 in
/// brackets), and starts one process per connection until SIGTERM or SIGINT; then ends the running sessions and waits
/// for them. Parses nothing that a client sends. Beyond `max_sessions` a connection gets a 421 and is closed.
/// \return exit status of the program; 1 (and one line in the log) when an address cannot be taken.
int listener_run(const configuration& config, storage_plugin& storage);

}  // namespace tarvex::server
