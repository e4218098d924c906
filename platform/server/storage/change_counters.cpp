#include "storage/change_counters.h"

namespace tarvex::server {

static_assert(std::atomic<std::uint64_t>::is_always_lock_free, "counters in shared memory take no lock");

std::atomic<std::uint64_t>& change_counter(change_counters& counters, std::string_view account) {
  // FNV-1a: unlike std::hash the same in every build, so that two of them may share the memory.
  std::uint64_t hash = 0xcbf29ce484222325U;
  for (const char byte : account) hash = (hash ^ static_cast<unsigned char>(byte)) * 0x100000001b3U;
  return counters.slot[hash % change_counters::SLOTS];
}

}  // namespace tarvex::server
