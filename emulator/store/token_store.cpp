#include "store/token_store.h"

#include "base/digest.h"
#include "base/text.h"

namespace tarvex::emulator {
namespace {

constexpr std::size_t TOKEN_DIGITS = 48;

std::string digest_of(std::string_view token) {
  return hex(sha256_of(token));
}

template <typename Value>
std::optional<token_pair> select_pair(database& on, const std::string& condition, const Value& value) {
  cursor rows(on,
              "SELECT id, sign_in, client, user, access_expires_at, refresh_expires_at, successor, used, state "
              "FROM token_pairs WHERE " +
                  condition);
  rows.bind(value);
  if (!rows.next()) return std::nullopt;
  return token_pair{.id = rows.integer(0),
                    .sign_in = rows.integer(1),
                    .client = rows.text(2),
                    .user = rows.integer(3),
                    .access_expires_at = rows.integer(4),
                    .refresh_expires_at = rows.integer(5),
                    .successor = rows.integer(6),
                    .used = rows.integer(7) != 0,
                    .state = static_cast<pair_state>(rows.integer(8))};
}

std::int64_t number_of_state(pair_state state) {
  return static_cast<std::int64_t>(state);
}

}  // namespace

void token_store::add_fixed(std::string_view token, std::int64_t user) {
  on_.run("INSERT INTO fixed_tokens(digest, user) VALUES(?, ?) ON CONFLICT(digest) DO UPDATE SET user = excluded.user",
          digest_of(token), user);
}

std::optional<std::int64_t> token_store::find_fixed(std::string_view token) {
  const std::int64_t user = on_.number("SELECT user FROM fixed_tokens WHERE digest = ?", 0, digest_of(token));
  return user != 0 ? std::optional(user) : std::nullopt;
}

void token_store::remove_fixed(std::string_view token) {
  on_.run("DELETE FROM fixed_tokens WHERE digest = ?", digest_of(token));
}

token_pair token_store::create(token_pair wanted) {
  wanted.id = on_.next_number("token_pairs");
  if (wanted.sign_in == 0) wanted.sign_in = wanted.id;
  on_.run(
      "INSERT INTO token_pairs(id, sign_in, client, user, access, access_expires_at, refresh_expires_at) "
      "VALUES(?, ?, ?, ?, ?, ?, ?)",
      wanted.id, wanted.sign_in, wanted.client, wanted.user, digest_of(access_token(wanted)), wanted.access_expires_at,
      wanted.refresh_expires_at);
  if (wanted.refresh_expires_at != 0) {
    on_.run("UPDATE token_pairs SET refresh = ? WHERE id = ?", digest_of(refresh_token(wanted)), wanted.id);
  }
  return wanted;
}

std::string token_store::access_token(const token_pair& of) {
  return derive("access", of.id);
}

std::string token_store::refresh_token(const token_pair& of) {
  return derive("refresh", of.id);
}

std::optional<token_pair> token_store::find(std::int64_t id) {
  return select_pair(on_, "id = ?", id);
}

// A token of the other kind is not found: a refresh token opens nothing but /oauth2/token.
std::optional<token_pair> token_store::find_by_access(std::string_view token) {
  return select_pair(on_, "access = ?", digest_of(token));
}

std::optional<token_pair> token_store::find_by_refresh(std::string_view token) {
  return select_pair(on_, "refresh = ?", digest_of(token));
}

void token_store::set_successor(const token_pair& of, const token_pair& successor) {
  on_.run("UPDATE token_pairs SET successor = ? WHERE id = ?", successor.id, of.id);
}

void token_store::set_used(const token_pair& pair) {
  on_.run("UPDATE token_pairs SET used = 1 WHERE id = ?", pair.id);
}

void token_store::end_earlier(const token_pair& pair) {
  on_.run("UPDATE token_pairs SET state = ? WHERE sign_in = ? AND id < ? AND state = ?",
          number_of_state(pair_state::REPLACED), pair.sign_in, pair.id, number_of_state(pair_state::LIVE));
}

void token_store::revoke_sign_in(std::int64_t sign_in) {
  on_.run("UPDATE token_pairs SET state = ? WHERE sign_in = ?", number_of_state(pair_state::REVOKED), sign_in);
}

/// Hex digits, which need no escaping anywhere.
std::string token_store::derive(std::string_view kind, std::int64_t id) {
  on_.run("INSERT OR IGNORE INTO token_key(id, value) VALUES(1, ?)", random_hex(32));
  cursor key(on_, "SELECT value FROM token_key");
  if (!key.next()) throw database_failure("the key of the tokens is gone");
  return hex(hmac_sha256_of(key.text(0), std::string(kind) + ":" + std::to_string(id))).substr(0, TOKEN_DIGITS);
}

}  // namespace tarvex::emulator
