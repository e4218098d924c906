#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace tarvex::server {

/// What sessions count together, in memory that all session processes and the listener share. No locks: a session that
/// dies, or is taken over, holds up nobody. Zeroed memory is its empty state.
///
/// Both tables are hashed; an entry lies in one of the PROBES slots from where its key hashes to.
struct shared_limits {
  static constexpr std::size_t SLOTS = 1 << 18;  ///< memory that nobody touches costs nothing
  static constexpr std::size_t PROBES = 64;
  static constexpr std::size_t SHARES = 100000;

  /// Wrong passwords of one address.
  struct failures {
    std::atomic<std::uint64_t> key;    ///< 0: never used
    std::atomic<std::uint64_t> state;  ///< see limits/wrong_passwords.cpp
  };

  std::uint64_t salt;                                  ///< set before the first session: nobody foretells a slot
  failures wrong_passwords[SLOTS];                     ///< by address
  std::atomic<std::uint64_t> account_sessions[SLOTS];  ///< by account; see limits/account_seats.cpp
  std::atomic<std::uint64_t> seats[SHARES];            ///< by session: the account that it is counted for
};

static_assert(std::atomic<std::uint64_t>::is_always_lock_free, "what lies in shared memory takes no lock");

/// Where a key's probes begin, and its bits for telling it from others: never 0.
[[nodiscard]] std::uint64_t limits_hash(const shared_limits& limits, std::uint64_t key);

}  // namespace tarvex::server
