#pragma once

#include "config/configuration.h"
#include "storage/plugin.h"

#include <string>

namespace tarvex::server {

/// Listens on every configured address, prints "listening on HOST:PORT" on standard output once for each (IPv6 in
/// brackets), becomes the configured user where it is root, and starts one process per connection until SIGTERM or
/// SIGINT; then gives the running sessions their grace, and waits for them. A second such signal ends all at once.
/// SIGHUP has `file` read again, for the sessions to come. Parses nothing that a client sends; a connection beyond a
/// limit gets a 421 and is closed.
/// \param config  as read from `file`
/// \return exit status of the program; 1 (and one line in the log) when it cannot serve.
int listener_run(const std::string& file, const configuration& config, storage_plugin& storage);

}  // namespace tarvex::server
