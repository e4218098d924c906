#include "storage/spool_budget.h"

namespace tarvex::server {

bool budget_take(std::atomic<std::uint64_t>& total, std::atomic<std::uint64_t>& mine, std::uint64_t limit,
                 std::uint64_t bytes) {
  // Added first, so that two sessions never find the same room.
  const std::uint64_t before = total.fetch_add(bytes);
  if (limit != 0 && (before > limit || bytes > limit - before)) {
    total -= bytes;
    return false;
  }
  mine += bytes;
  return true;
}

void budget_give_back(std::atomic<std::uint64_t>& total, std::atomic<std::uint64_t>& mine, std::uint64_t bytes) {
  mine -= bytes;
  total -= bytes;
}

memory_account window_account(spool_budget* budget, std::size_t share) {
  if (!budget) return {};
  spool_budget::share& mine = budget->shares[share];
  return {
      [budget, &mine](std::size_t bytes) {
        return budget_take(budget->total.window_bytes, mine.window_bytes, budget->window_limit_bytes, bytes);
      },
      [budget, &mine](std::size_t bytes) { budget_give_back(budget->total.window_bytes, mine.window_bytes, bytes); }};
}

void budget_clear(spool_budget& budget, std::size_t share) {
  spool_budget::share& left = budget.shares[share];
  budget.total.memory_bytes -= left.memory_bytes.exchange(0);
  budget.total.disk_bytes -= left.disk_bytes.exchange(0);
  budget.total.window_bytes -= left.window_bytes.exchange(0);
}

}  // namespace tarvex::server
