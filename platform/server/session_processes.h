#pragma once

#include "config/accounts_cache.h"
#include "config/configuration.h"
#include "net/tls_identity.h"
#include "storage/change_slots.h"
#include "storage/plugin.h"
#include "storage/spool_budget.h"
#include "tarvex_common.hpp"

#include <sys/mman.h>
#include <sys/types.h>

#include <csignal>
#include <cstddef>
#include <memory>
#include <unordered_map>
#include <utility>
#include <vector>

namespace tarvex::server {

/// The processes that serve sessions, one for each connection: forked, not executed, so that they share the pages of
/// the loaded libraries. The listener's thread.
class session_processes {
 public:
  /// \param signal_mask  that of the sessions; the listener blocks what it awaits
  session_processes(const configuration& config, storage_plugin& storage, const sigset_t& signal_mask);

  /// Sets up what all sessions share. \return false, with errno set, when there is no memory.
  [[nodiscard]] bool open();

  /// Sessions that are started from now on offer TLS as this identity; null: none.
  void use_tls(std::shared_ptr<const tls_identity> identity) { tls_ = std::move(identity); }

  /// Hands a connection to a new process; a 421 turns it away beyond `max_sessions` and when no process can be had.
  void start(descriptor control);

  /// Takes note of processes that have ended. Call after SIGCHLD.
  void reap();

  void signal_all(int signal) const;

  /// Waits for every process, however long that takes. For those that were killed.
  void wait_for_all();

  [[nodiscard]] std::size_t count() const { return running_.size(); }

 private:
  template <typename Shared>
  struct unmap {
    void operator()(Shared* memory) const noexcept { munmap(memory, sizeof *memory); }
  };
  /// Memory that all sessions share.
  template <typename Shared>
  using shared_memory = std::unique_ptr<Shared, unmap<Shared>>;

  [[noreturn]] void become_session(descriptor control, pid_t parent, std::size_t share);

  const configuration& config_;
  accounts_cache accounts_;
  storage_plugin& storage_;
  const sigset_t signal_mask_;
  std::shared_ptr<const tls_identity> tls_;
  shared_memory<change_slots> changes_;
  shared_memory<spool_budget> budget_;
  std::unordered_map<pid_t, std::size_t> running_;  ///< and the share of the budget that each has
  std::vector<std::size_t> free_shares_;            ///< that were given back
  std::size_t next_share_ = 0;                      ///< that nobody had yet
};

}  // namespace tarvex::server
