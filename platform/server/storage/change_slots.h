#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace tarvex::server {

/// When something changed in the accounts, in memory that all session processes share.
///
/// A change gets a number of a running count and is entered in the slot that account and path hash to. Two paths in one
/// slot cost a look too many, never one too few. Slots are many, so that this is rare, and memory that nobody touches
/// costs nothing.
struct change_slots {
  static constexpr std::size_t SLOTS = 1 << 20;

  struct slot {
    std::atomic<std::uint64_t> changed;  ///< removed, renamed, moved or replaced: last stamp
    std::atomic<std::uint64_t> added;    ///< made or stored: last stamp
  };

  std::atomic<std::uint64_t> count;     ///< of changes so far
  std::atomic<std::uint64_t> sessions;  ///< that have taken a tag so far
  slot slots[SLOTS];
};

/// A change's number and who made it, in one word, since the two are read by others while they are written.
struct change_stamp {
  static constexpr unsigned TAG_BITS = 24;
  static constexpr std::uint32_t NOBODY = 0;  ///< whoever made it does not know what it means either

  static change_stamp of(std::uint64_t word) {
    return {word >> TAG_BITS, static_cast<std::uint32_t>(word & ((1U << TAG_BITS) - 1))};
  }
  std::uint64_t word() const { return number << TAG_BITS | tag; }

  std::uint64_t number = 0;
  std::uint32_t tag = NOBODY;
};

/// The slot of an account's path, the same in every process that shares `slots`.
change_slots::slot& change_slot(change_slots& slots, std::string_view account, std::string_view path);

/// A tag that no other running session has.
std::uint32_t change_tag(change_slots& slots);

}  // namespace tarvex::server
