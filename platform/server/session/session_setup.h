#pragma once

namespace tarvex::server {

struct change_counters;
struct configuration;
struct storage_plugin;

/// What a session process starts with.
struct session_setup {
  const configuration* config = nullptr;
  storage_plugin* storage = nullptr;   ///< loaded, not yet activated
  change_counters* changes = nullptr;  ///< shared memory
  int control_socket = -1;             ///< the session closes it
};

}  // namespace tarvex::server
