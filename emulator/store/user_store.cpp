#include "store/user_store.h"

#include "base/digest.h"
#include "base/text.h"

namespace tarvex::emulator {
namespace {

const std::string SELECT = "SELECT id, name, created_at, used FROM users ";

/// Tokens of a demonstration may be somebody's real ones, so the file holds their digests.
std::string digest_of(std::string_view token) {
  return hex(sha256_of(token));
}

template <typename... Values>
std::optional<user> select(database& on, const std::string& rest, const Values&... values) {
  cursor rows(on, SELECT + rest);
  rows.bind(values...);
  if (!rows.next()) return std::nullopt;
  return user{rows.integer(0), rows.text(1), rows.integer(2), rows.integer(3)};
}

}  // namespace

std::optional<user> user_store::find(std::int64_t id) {
  return select(on_, "WHERE id = ?", id);
}

std::optional<user> user_store::find_first() {
  return select(on_, "ORDER BY id LIMIT 1");
}

user user_store::ensure(std::string_view name, std::int64_t now, bool& created) {
  auto known = select(on_, "WHERE name = ?", name);
  created = !known;
  if (known) return *known;
  const std::int64_t id = on_.next_number("users");
  on_.run("INSERT INTO users(id, name, created_at) VALUES(?, ?, ?)", id, name, now);
  return {.id = id, .name = std::string(name), .created_at = now};
}

void user_store::add_token(std::string_view token, std::string_view kind, std::int64_t user, std::int64_t expires_at) {
  on_.run(
      "INSERT INTO tokens(digest, kind, user, expires_at) VALUES(?, ?, ?, ?) ON CONFLICT(digest) DO UPDATE SET "
      "user = excluded.user, expires_at = excluded.expires_at, spent = 0",
      digest_of(token), kind, user, expires_at);
}

// A token of another kind is not found: a refresh token opens nothing but /oauth2/token.
std::optional<token_state> user_store::find_token(std::string_view token, std::string_view kind, std::int64_t now) {
  cursor rows(on_, "SELECT user, expires_at, spent FROM tokens WHERE digest = ? AND kind = ?");
  rows.bind(digest_of(token), kind);
  if (!rows.next()) return std::nullopt;
  return token_state{rows.integer(0), rows.integer(1) <= now, rows.integer(2) != 0};
}

void user_store::spend_token(std::string_view token) {
  on_.run("UPDATE tokens SET spent = 1 WHERE digest = ?", digest_of(token));
}

void user_store::revoke_token(std::string_view token) {
  const std::string digest = digest_of(token);
  const std::int64_t user = on_.number("SELECT user FROM tokens WHERE digest = ? AND kind = 'refresh'", 0, digest);
  on_.run("DELETE FROM tokens WHERE digest = ?", digest);
  // A refresh token ends its access tokens; those of --account never expire and stay.
  if (user != 0) on_.run("DELETE FROM tokens WHERE user = ? AND expires_at < ?", user, NEVER);
}

void user_store::add_used(std::int64_t user, std::int64_t bytes) {
  on_.run("UPDATE users SET used = used + ? WHERE id = ?", bytes, user);
}

}  // namespace tarvex::emulator
