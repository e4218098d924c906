#include "store/user_store.h"

namespace tarvex::emulator {
namespace {

const std::string SELECT_USER = "SELECT id, name, created_at, used FROM users ";

template <typename... Values>
std::optional<user> select_user(database& on, const std::string& rest, const Values&... values) {
  cursor rows(on, SELECT_USER + rest);
  rows.bind(values...);
  if (!rows.next()) return std::nullopt;
  return user{rows.integer(0), rows.text(1), rows.integer(2), rows.integer(3)};
}

}  // namespace

std::optional<user> user_store::find(std::int64_t id) {
  return select_user(on_, "WHERE id = ?", id);
}

std::optional<user> user_store::find_first() {
  return select_user(on_, "ORDER BY id LIMIT 1");
}

std::vector<user> user_store::list() {
  cursor rows(on_, SELECT_USER + "ORDER BY id");
  std::vector<user> found;
  while (rows.next()) found.push_back({rows.integer(0), rows.text(1), rows.integer(2), rows.integer(3)});
  return found;
}

std::optional<user> user_store::find_named(std::string_view name) {
  return select_user(on_, "WHERE name = ?", name);
}

user user_store::ensure(std::string_view name, std::int64_t now, bool& created) {
  auto known = find_named(name);
  created = !known;
  if (known) return *known;
  const std::int64_t id = on_.next_number("users");
  on_.run("INSERT INTO users(id, name, created_at) VALUES(?, ?, ?)", id, name, now);
  return {.id = id, .name = std::string(name), .created_at = now};
}

void user_store::add_used(std::int64_t user, std::int64_t bytes) {
  on_.run("UPDATE users SET used = used + ? WHERE id = ?", bytes, user);
}

}  // namespace tarvex::emulator
