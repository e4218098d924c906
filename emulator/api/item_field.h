#pragma once

#include "base/json.h"
#include "store/item.h"

#include <span>

namespace tarvex::emulator {

class item_view;

/// One field of an item: which kinds of items have it, when it is shown, and how it is made.
struct item_field {
  static constexpr unsigned FOLDER = 1U << static_cast<unsigned>(item_type::FOLDER);
  static constexpr unsigned FILE = 1U << static_cast<unsigned>(item_type::FILE);
  static constexpr unsigned LINK = 1U << static_cast<unsigned>(item_type::WEB_LINK);

  /// In the mini set and all others; in the standard set; only where `fields` names it; in every answer, whatever
  /// `fields` names.
  enum class shown { MINI, STANDARD, ASKED, ALWAYS };

  const char* name;
  unsigned kinds;
  shown from;
  json_ptr (*make)(item_view& view, const item& subject);

  [[nodiscard]] bool fits(const item& subject) const {
    return (kinds >> static_cast<unsigned>(subject.type) & 1U) != 0;
  }
};

/// All fields, in the order in which Box writes them.
[[nodiscard]] std::span<const item_field> item_fields();

}  // namespace tarvex::emulator
