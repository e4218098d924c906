#pragma once

#include "store/database.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarvex::emulator {

struct user {
  std::int64_t id = 0;
  std::string name = {};
  std::int64_t created_at = 0;
  std::int64_t used = 0;  // bytes, the trash and old versions included

  [[nodiscard]] std::string login() const { return name + "@example.com"; }
};

/// Every call is made inside a transaction on the database.
class user_store {
 public:
  explicit user_store(database& on) : on_(on) {}

  [[nodiscard]] std::optional<user> find(std::int64_t id);

  [[nodiscard]] std::vector<user> list();

  [[nodiscard]] std::optional<user> find_named(std::string_view name);

  /// The user of that name, made when there is none; `created` tells.
  user ensure(std::string_view name, std::int64_t now, bool& created);

  /// Any user: the first one made.
  [[nodiscard]] std::optional<user> find_first();

  void add_used(std::int64_t user, std::int64_t bytes);

 private:
  database& on_;
};

}  // namespace tarvex::emulator
