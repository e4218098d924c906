/// \file
/// A small file of fixed size that several processes of one user map and lock.
#pragma once

#include "tarvex_common.h"

#include <cstddef>
#include <string>

namespace tarvex::box {

/// Creates the directory, for its owner alone, if it does not exist (its parent must).
void directory_ensure(const char* path);

/// What distinguishes one kind of shared file.
struct shared_file_kind {
  size_t size = 0;                         ///< bytes of the file
  size_t prepared_size = 0;                ///< bytes that are mapped once while the file is made
  void (*prepare)(void* start) = nullptr;  ///< what happens to them then; null: nothing
};

struct shared_file {
  int fd = -1;            ///< -1: no file could be used
  void* start = nullptr;  ///< the mapping, or a private, zeroed block; null only when memory is out
};

/// Opens the file `name` in the directory of that template, or makes it: mode 0600 in a directory of mode 0700, brought
/// to its size under the write lock. A file of another owner is not used. Never fails: without a file the block is
/// private.
shared_file shared_file_open(const char* directory_template, const char* name, const shared_file_kind& kind) noexcept;

/// Locks (F_WRLCK) or unlocks (F_UNLCK) the whole file, waiting for the lock or not. A cancellation ends the wait.
/// \return 0 or an errno value.
int shared_file_lock(int fd, short type, bool wait) noexcept;

/// The same, with the failure as a system error.
[[nodiscard]] tarvex_result_t shared_file_lock_result(int fd, short type, bool wait) noexcept;

/// Closes what open gave: `mapped` bytes are unmapped, or the private block is released. Clears both fields.
void shared_file_close(shared_file& file, size_t mapped) noexcept;

}  // namespace tarvex::box
