#pragma once

#include "store/database.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tarvex::emulator {

enum class pair_state { LIVE, REPLACED, REVOKED };

/// What one answer of the token address gave: an access token, and a refresh token where the grant has one.
/// A sign-in is the chain of pairs that follow each other by renewal.
struct token_pair {
  std::int64_t id = 0;
  std::int64_t sign_in = 0;  // number of the chain's first pair; 0 in `create`: this is the first one
  std::string client = {};
  std::int64_t user = 0;
  std::int64_t access_expires_at = 0;
  std::int64_t refresh_expires_at = 0;  // 0: there is no refresh token
  std::int64_t successor = 0;           // the pair that its refresh token gave; 0: none yet
  bool used = false;                    // its access token has opened something
  pair_state state = pair_state::LIVE;
};

/// Tokens, all of them kept as digests only: those of a demonstration may be somebody's real ones. Every call is made
/// inside a transaction on the database.
///
/// An issued token is derived from its pair's number by a key of this database's own. So a pair can be answered again,
/// after a restart of the program too, though it is stored nowhere.
class token_store {
 public:
  explicit token_store(database& on) : on_(on) {}

  /// A token of the command line: it never expires, belongs to no client and has no pair. A known one gets a new user.
  void add_fixed(std::string_view token, std::int64_t user);
  [[nodiscard]] std::optional<std::int64_t> find_fixed(std::string_view token);
  void remove_fixed(std::string_view token);

  /// Enters a pair under a new number, which the answer has.
  [[nodiscard]] token_pair create(token_pair wanted);
  [[nodiscard]] std::string access_token(const token_pair& of);
  [[nodiscard]] std::string refresh_token(const token_pair& of);

  [[nodiscard]] std::optional<token_pair> find(std::int64_t id);
  [[nodiscard]] std::optional<token_pair> find_by_access(std::string_view token);
  [[nodiscard]] std::optional<token_pair> find_by_refresh(std::string_view token);

  void set_successor(const token_pair& of, const token_pair& successor);
  void set_used(const token_pair& pair);

  /// Ends the pairs of its sign-in that came before it.
  void end_earlier(const token_pair& pair);

  void revoke_sign_in(std::int64_t sign_in);

 private:
  std::string derive(std::string_view kind, std::int64_t id);

  database& on_;
};

}  // namespace tarvex::emulator
