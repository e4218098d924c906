#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace tarvex::server {

/// Counts changes per account, in memory that all session processes share. An account maps to one slot; two accounts
/// in one slot only cause a listing too many, never one too few.
struct change_counters {
  static constexpr std::size_t SLOTS = 4096;
  std::atomic<std::uint64_t> slot[SLOTS];
};

/// The counter of an account's changes, the same in every process that shares `counters`. Any thread.
std::atomic<std::uint64_t>& change_counter(change_counters& counters, std::string_view account);

}  // namespace tarvex::server
