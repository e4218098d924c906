#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace tarvex::server {

/// What the spools of all sessions may hold together, in memory that all session processes share. A session enters what
/// it holds in a share of its own, so that the listener can give back what a session that died has left.
struct spool_budget {
  static constexpr std::size_t SHARES = 100000;

  struct share {
    std::atomic<std::uint64_t> memory_bytes;
    std::atomic<std::uint64_t> disk_bytes;
  };

  std::uint64_t memory_limit_bytes;  ///< set before the first session
  std::uint64_t disk_limit_bytes;    ///< 0: as the disk allows
  share total;
  share shares[SHARES];
};

/// Takes `bytes` of a limit (0: none). \return false, and nothing taken, when that would be too much.
[[nodiscard]] bool budget_take(std::atomic<std::uint64_t>& total, std::atomic<std::uint64_t>& mine, std::uint64_t limit,
                               std::uint64_t bytes);
void budget_give_back(std::atomic<std::uint64_t>& total, std::atomic<std::uint64_t>& mine, std::uint64_t bytes);

/// Gives back all that a share holds, of a session that is no more.
void budget_clear(spool_budget& budget, std::size_t share);

}  // namespace tarvex::server
