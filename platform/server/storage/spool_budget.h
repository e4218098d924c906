#pragma once

#include "net/window_memory.h"

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace tarvex::server {

/// What the spools and the windows of all sessions may hold together, in memory that all session processes share. A
/// session enters what it holds in a share of its own, so that the listener can give back what a session that died has
/// left.
struct spool_budget {
  static constexpr std::size_t SHARES = 100000;

  struct share {
    std::atomic<std::uint64_t> memory_bytes;
    std::atomic<std::uint64_t> disk_bytes;
    std::atomic<std::uint64_t> window_bytes;  ///< of blocks that came early
  };

  std::uint64_t memory_limit_bytes;  ///< set before the first session
  std::uint64_t disk_limit_bytes;    ///< 0: as the disk allows
  std::uint64_t window_limit_bytes;
  share total;
  share shares[SHARES];
};

/// Takes `bytes` of a limit (0: none). \return false, and nothing taken, when that would be too much.
[[nodiscard]] bool budget_take(std::atomic<std::uint64_t>& total, std::atomic<std::uint64_t>& mine, std::uint64_t limit,
                               std::uint64_t bytes);
void budget_give_back(std::atomic<std::uint64_t>& total, std::atomic<std::uint64_t>& mine, std::uint64_t bytes);

/// The account of a session's windows. A null budget bounds nothing.
memory_account window_account(spool_budget* budget, std::size_t share);

/// Gives back all that a share holds, of a session that is no more.
void budget_clear(spool_budget& budget, std::size_t share);

}  // namespace tarvex::server
