#pragma once

#include "store/item.h"

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <string_view>

namespace tarvex::emulator {

/// Folders that a running operation locks, and names that another upload holds, for some time. Usable from all threads.
class reservations {
 public:
  void lock_folder(std::int64_t folder, std::int64_t milliseconds);
  void reserve_name(const std::string& name, std::int64_t milliseconds);  // in every folder

  /// The name of an item in its folder, for those of one owner.
  void reserve_place(const item& gone, std::int64_t milliseconds);

  [[nodiscard]] bool is_locked(std::int64_t folder) const;
  [[nodiscard]] bool is_reserved(std::int64_t owner, std::int64_t folder, std::string_view name) const;
  void clear();

 private:
  mutable std::mutex mutex_;                      // guards both
  std::map<std::int64_t, std::int64_t> folders_;  // until when, microseconds since 1970
  std::map<std::string, std::int64_t> names_;
};

}  // namespace tarvex::emulator
