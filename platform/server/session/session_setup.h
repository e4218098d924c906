#pragma once

#include <cstddef>
#include <memory>

namespace tarvex::server {

struct change_slots;
struct configuration;
struct shared_limits;
struct spool_budget;
struct storage_plugin;
struct tls_identity;

/// What a session process starts with.
struct session_setup {
  const configuration* config = nullptr;
  storage_plugin* storage = nullptr;             ///< loaded, not yet activated
  change_slots* changes = nullptr;               ///< shared memory; null: no other session exists
  spool_budget* budget = nullptr;                ///< shared memory; null: none
  shared_limits* limits = nullptr;               ///< shared memory; null: none
  std::size_t share = 0;                         ///< this session's, of the budget and of the limits
  int control_socket = -1;                       ///< the session closes it
  int broker_socket = -1;                        ///< the same; -1: nobody can log in
  std::shared_ptr<const tls_identity> tls = {};  ///< null: TLS is not offered
  bool implicit_tls = false;                     ///< TLS comes before the greeting
};

}  // namespace tarvex::server
