#pragma once

#include "config/accounts_cache.h"
#include "config/configuration.h"
#include "storage/plugin.h"

#include <atomic>
#include <cstdint>
#include <string>

namespace tarvex::server {

/// Counts changes per account, in memory that all session processes share. An account maps to one slot; two accounts
/// in one slot only cause a listing too many, never one too few.
struct change_counters {
  static constexpr std::size_t SLOTS = 4096;
  std::atomic<std::uint64_t> slot[SLOTS];
};

/// What a session process starts with.
struct session_setup {
  const configuration* config = nullptr;
  accounts_cache* accounts = nullptr;
  server::storage* storage = nullptr;  ///< loaded, not yet activated
  change_counters* changes = nullptr;  ///< shared memory
  int control_socket = -1;             ///< the session closes it
};

/// Serves one control connection from greeting to end. Runs in a process of its own, which ends with what this
/// returns as exit status: 0 after an orderly end.
///
/// SIGTERM ends the session: a running operation is cancelled, the client gets a 421.
int session_run(const session_setup& setup);

}  // namespace tarvex::server
