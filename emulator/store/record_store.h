#pragma once

#include "base/json.h"
#include "store/database.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarvex::emulator {

/// Something small that is kept as JSON: a lock, a shared link, a comment, a template.
struct record {
  std::int64_t id = 0;
  std::int64_t owner = 0;    // the user who made it
  std::string subject = {};  // what it is about: an item's typed id, a template's name
  json_ptr value = nullptr;  // an object
};

/// Records by kind ("lock", "comment"). Every call is made inside a transaction on the database.
class record_store {
 public:
  explicit record_store(database& on) : on_(on) {}

  /// Gives it the next number.
  record create(std::string_view kind, record made);
  void save(const record& changed);
  void remove(std::int64_t id);

  [[nodiscard]] std::optional<record> find(std::string_view kind, std::int64_t id);

  /// Those about one subject, in the order of their making; and the first of them.
  [[nodiscard]] std::vector<record> list(std::string_view kind, std::string_view subject);
  [[nodiscard]] std::optional<record> first(std::string_view kind, std::string_view subject);

  /// All of a kind.
  [[nodiscard]] std::vector<record> list(std::string_view kind);

 private:
  database& on_;
};

}  // namespace tarvex::emulator
