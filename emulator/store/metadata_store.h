#pragma once

#include "base/json.h"
#include "store/database.h"
#include "store/item.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarvex::emulator {

/// One metadata instance of an item: the user's own members, and the counter of changes.
struct metadata {
  json_ptr value = nullptr;
  std::int64_t version = 0;
  std::string id = {};
  std::string place = {};  // scope and template, "global.properties"
};

/// Metadata instances, at most one for each item and template. Every call is made inside a transaction on the database.
class metadata_store {
 public:
  explicit metadata_store(database& on) : on_(on) {}

  [[nodiscard]] std::optional<metadata> find(const item& subject, std::string_view place);
  [[nodiscard]] std::vector<metadata> list(const item& subject);
  void save(const item& subject, const metadata& held);
  void remove(const item& subject, std::string_view place);

  /// All instances of a template.
  void remove_all(std::string_view place);

  /// Gives `to` what `from` has.
  void copy(const item& from, const item& to);

 private:
  database& on_;
};

}  // namespace tarvex::emulator
