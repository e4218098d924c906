#pragma once

#include "store/database.h"
#include "store/item.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace tarvex::emulator {

/// One version of a file as its list shows it.
struct listed_version {
  version content = {};
  std::int64_t created_at = 0;  // seconds since 1970
  std::int64_t trashed_at = 0;  // 0: not in the trash
  std::int64_t number = 0;      // 1 for the first of the file
};

/// The versions of files. Every call is made inside a transaction on the database.
class version_store {
 public:
  explicit version_store(database& on) : on_(on) {}

  void add(const version& made, std::int64_t now);

  /// A version of any file, in the trash or not.
  [[nodiscard]] std::optional<version> find(std::int64_t id);

  /// All versions of a file, the newest first.
  [[nodiscard]] std::vector<listed_version> list(std::int64_t file);

  /// Puts a version into the trash (`at` seconds since 1970), or takes it out again (0).
  void set_trashed(std::int64_t id, std::int64_t at);
  [[nodiscard]] bool is_trashed(std::int64_t id);

 private:
  database& on_;
};

}  // namespace tarvex::emulator
