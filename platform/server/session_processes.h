#pragma once

#include "broker_keeper.h"
#include "config/configuration.h"
#include "confine/sandbox.h"
#include "limits/arrivals.h"
#include "limits/shared_limits.h"
#include "net/tls_identity.h"
#include "storage/change_slots.h"
#include "storage/plugin.h"
#include "storage/spool_budget.h"
#include "tarvex_common.hpp"

#include <sys/mman.h>
#include <sys/types.h>

#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace tarvex::server {

/// The processes that serve sessions, one for each connection: forked, not executed, so that they share the pages of
/// the loaded libraries, and confined. The listener's thread.
class session_processes {
 public:
  /// \param signal_mask  that of the sessions; the listener blocks what it awaits
  /// \param broker  has been started
  session_processes(configuration config, storage_plugin& storage, broker_keeper& broker, const sigset_t& signal_mask);

  /// Sets up what all sessions share, and how they confine themselves. \return what went wrong; empty: nothing.
  [[nodiscard]] std::string open();

  /// Takes another configuration for the sessions to come. \return why it cannot be; nothing is changed then.
  [[nodiscard]] std::string reload(configuration fresh);

  /// Sessions that are started from now on offer TLS as this identity; null: none.
  void use_tls(std::shared_ptr<const tls_identity> identity) { tls_ = std::move(identity); }

  /// Hands a connection to a new process. A 421 turns it away when a limit is reached or no process can be had (a
  /// client that speaks TLS from the first byte would not understand it, and is just closed upon). \return whether it
  /// was handed over.
  bool start(descriptor control, bool implicit_tls);

  /// Takes note of processes that have ended. Call after SIGCHLD.
  void reap();

  void signal_all(int signal) const;

  /// Waits for every process, however long that takes. For those that were killed.
  void wait_for_all();

  [[nodiscard]] std::size_t count() const { return running_.size(); }
  [[nodiscard]] const configuration& config() const { return config_; }

 private:
  template <typename Shared>
  struct unmap {
    void operator()(Shared* memory) const noexcept { munmap(memory, sizeof *memory); }
  };
  /// Memory that all sessions share.
  template <typename Shared>
  using shared_memory = std::unique_ptr<Shared, unmap<Shared>>;

  /// What the listener keeps of a session.
  struct session_record {
    std::size_t share;    ///< of the budget and of the limits
    std::uint64_t group;  ///< of addresses that it is counted for
    std::uint64_t link;   ///< its connection to the broker
  };

  /// Why a connection is turned away, for the client and for the log.
  struct refusal {
    const char* reply = nullptr;
    const char* reason = nullptr;
  };

  [[noreturn]] void become_session(descriptor control, descriptor broker, pid_t parent, std::size_t share,
                                   bool implicit_tls);
  refusal admit(std::uint64_t group);
  bool turn_away(const descriptor& control, const refusal& why, const listen_address& peer, bool implicit_tls);
  std::size_t take_share();
  void release(const session_record& record);

  configuration config_;
  storage_plugin& storage_;
  broker_keeper& broker_;
  const sigset_t signal_mask_;
  std::shared_ptr<const tls_identity> tls_;
  shared_memory<change_slots> changes_;
  shared_memory<spool_budget> budget_;
  shared_memory<shared_limits> limits_;
  arrivals arrivals_;
  sandbox sandbox_;
  std::unordered_map<pid_t, session_record> running_;
  std::vector<std::size_t> free_shares_;          ///< that were given back
  std::size_t next_share_ = 0;                    ///< that nobody had yet
  std::uint64_t last_link_ = 0;                   ///< number of the last connection to the broker
  std::chrono::steady_clock::time_point told_{};  ///< of a refusal, in the log
  unsigned untold_ = 0;                           ///< refusals since
};

}  // namespace tarvex::server
