#pragma once

#include "tarvex_common.hpp"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tarvex::emulator {

/// How the names of contents that are still being received begin.
inline constexpr std::string_view DRAFT_PREFIX = "draft-";

/// The bytes of file versions and of upload sessions, one file each in one directory.
class content_store {
 public:
  /// Makes the directory where it is missing, and removes the drafts that a killed process left in it.
  /// Throws std::filesystem::filesystem_error.
  explicit content_store(std::string directory);

  /// Opens a content for reading (an empty descriptor when there is none), or for reading and writing (then it is made
  /// when it is missing). Throws std::system_error.
  [[nodiscard]] descriptor open(std::string_view name, bool for_writing) const;

  /// Gives a content another name, or removes it; a missing one is no error for `remove`. Throws std::system_error.
  void rename(std::string_view from, std::string_view to) const;
  void remove(std::string_view name) const;
  void remove_all(const std::vector<std::string>& names) const;
  void remove_everything() const;

 private:
  std::string directory_;  // ends in a slash
};

/// Writes or reads all bytes at an offset. Throws std::system_error (a full disk, for one).
void file_write(int file, std::string_view bytes, std::int64_t offset);
[[nodiscard]] std::size_t file_read(int file, char* into, std::size_t most, std::int64_t offset);

}  // namespace tarvex::emulator
