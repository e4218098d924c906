#pragma once

#include "config/accounts_cache.h"
#include "config/configuration.h"
#include "session/session.h"
#include "storage/plugin.h"
#include "tarvex_common.hpp"

#include <sys/types.h>

#include <csignal>
#include <cstddef>
#include <memory>
#include <unordered_set>

namespace tarvex::server {

/// The processes that serve sessions, one for each connection: forked, not executed, so that they share the pages of
/// the loaded libraries. The listener's thread.
class session_processes {
 public:
  /// \param signal_mask  that of the sessions; the listener blocks what it awaits
  session_processes(const configuration& config, storage& storage, const sigset_t& signal_mask);

  /// Sets up what all sessions share. \return false, with errno set, when there is no memory.
  [[nodiscard]] bool open();

  /// Hands a connection to a new process; a 421 turns it away beyond `max_sessions` and when no process can be had.
  void start(descriptor control);

  /// Takes note of processes that have ended. Call after SIGCHLD.
  void reap();

  void signal_all(int signal) const;

  /// Waits for every process, however long that takes. For those that were killed.
  void wait_for_all();

  [[nodiscard]] std::size_t count() const { return running_.size(); }

 private:
  struct unmap {
    void operator()(change_counters* counters) const noexcept;
  };

  [[noreturn]] void become_session(descriptor control, pid_t parent);

  const configuration& config_;
  accounts_cache accounts_;
  storage& storage_;
  const sigset_t signal_mask_;
  std::unique_ptr<change_counters, unmap> changes_;
  std::unordered_set<pid_t> running_;
};

}  // namespace tarvex::server
