#pragma once

#include "store/database.h"
#include "store/item.h"

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tarvex::emulator {

/// For the sources of item_store alone: items as rows of the table, and back.

/// The front of a query whose rows `item_of` reads.
extern const std::string ITEM_SELECT;

/// The item in the present row of a query that begins with ITEM_SELECT.
[[nodiscard]] item item_of(const cursor& row);

/// All items of ITEM_SELECT with the rest of the query, and the first one alone.
template <typename... Values>
[[nodiscard]] std::vector<item> select_items(database& on, const std::string& rest, const Values&... values) {
  cursor rows(on, ITEM_SELECT + rest);
  rows.bind(values...);
  std::vector<item> found;
  while (rows.next()) found.push_back(item_of(rows));
  return found;
}

template <typename... Values>
[[nodiscard]] std::optional<item> select_item(database& on, const std::string& rest, const Values&... values) {
  auto found = select_items(on, rest, values...);
  if (found.empty()) return std::nullopt;
  return std::move(found.front());
}

[[nodiscard]] inline int number(item_type type) {
  return static_cast<int>(type);
}
[[nodiscard]] inline int number(item_trash state) {
  return static_cast<int>(state);
}

}  // namespace tarvex::emulator
