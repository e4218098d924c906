#pragma once

#include "store/item.h"

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <tuple>

namespace tarvex::emulator {

/// What was stored so lately that not every part of this Box knows of it yet. Usable from all threads.
class recent_stores {
 public:
  /// Listings show `before` (nothing: no such item) in place of an item for so many milliseconds.
  void hide(const item& stored, const std::optional<item>& before, std::int64_t milliseconds);

  /// The item as a listing shows it now; nothing: not yet at all.
  [[nodiscard]] std::optional<item> listed(const item& stored) const;

  /// The content of a version is not there for so many milliseconds.
  void hold_back(std::int64_t version, std::int64_t milliseconds);
  [[nodiscard]] bool is_held_back(std::int64_t version) const;

  void clear();

 private:
  using item_key = std::tuple<std::int64_t, item_type, std::int64_t>;  // owner, type, id
  struct earlier {
    std::int64_t until_us = 0;
    std::optional<item> shown = {};
  };

  mutable std::mutex mutex_;  // guards both
  std::map<item_key, earlier> items_;
  std::map<std::int64_t, std::int64_t> versions_;  // until when, microseconds since 1970
};

}  // namespace tarvex::emulator
