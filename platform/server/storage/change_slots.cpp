#include "storage/change_slots.h"

namespace tarvex::server {

static_assert(std::atomic<std::uint64_t>::is_always_lock_free, "what lies in shared memory takes no lock");

namespace {

/// FNV-1a: unlike std::hash the same in every build, so that two of them may share the memory.
std::uint64_t hash_on(std::uint64_t hash, std::string_view text) {
  for (const char byte : text) hash = (hash ^ static_cast<unsigned char>(byte)) * 0x100000001b3U;
  return hash;
}

}  // namespace

change_slots::slot& change_slot(change_slots& slots, std::string_view account, std::string_view path) {
  // No name holds a line feed, so account and path cannot run into each other.
  std::uint64_t hash = hash_on(hash_on(hash_on(0xcbf29ce484222325U, account), "\n"), path);
  hash ^= hash >> 32;  // the low bits of FNV-1a alone mix its last byte badly
  return slots.slots[hash % change_slots::SLOTS];
}

std::uint32_t change_tag(change_slots& slots) {
  constexpr std::uint64_t TAGS = (1U << change_stamp::TAG_BITS) - 1;
  return static_cast<std::uint32_t>(slots.sessions++ % TAGS) + 1;
}

}  // namespace tarvex::server
