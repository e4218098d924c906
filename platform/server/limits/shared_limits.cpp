#include "limits/shared_limits.h"

namespace tarvex::server {

/// The last steps of MurmurHash3: every bit of the key moves every bit of the hash.
std::uint64_t limits_hash(const shared_limits& limits, std::uint64_t key) {
  std::uint64_t hash = key ^ limits.salt;
  hash = (hash ^ hash >> 33) * 0xff51afd7ed558ccdU;
  hash = (hash ^ hash >> 33) * 0xc4ceb9fe1a85ec53U;
  hash ^= hash >> 33;
  return hash == 0 ? 1 : hash;
}

}  // namespace tarvex::server
