/// \file
/// What the session's two tables have in common: their keys are paths.
#pragma once

#include "tarvex_common.h"

namespace tarvex::box {

/// Makes an empty table. \return 0 or an errno value
inline int path_table_init(tarvex_hashtable_t* table) noexcept {
  constexpr int BUCKETS = 1023;
  return tarvex_hashtable_init(table, BUCKETS, tarvex_hashtable_string_hash, tarvex_hashtable_string_keyeq);
}

/// The key of a path. The table's functions take writable keys and write to none.
inline void* path_key(const char* path) noexcept {
  return const_cast<char*>(path);
}

}  // namespace tarvex::box
