#pragma once

#include "store/database.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tarvex::emulator {

struct user {
  std::int64_t id = 0;
  std::string name = {};
  std::int64_t created_at = 0;
  std::int64_t used = 0;  // bytes, the trash and old versions included

  [[nodiscard]] std::string login() const { return name + "@example.com"; }
};

/// Kinds of tokens.
inline constexpr std::string_view ACCESS_TOKEN = "access";
inline constexpr std::string_view REFRESH_TOKEN = "refresh";
inline constexpr std::string_view AUTHORISATION_CODE = "code";
/// A time of expiry that never comes.
constexpr std::int64_t NEVER = INT64_MAX;

/// What is known of a token. Tokens are kept as digests only.
struct token_state {
  std::int64_t user = 0;
  bool expired = false;
  bool spent = false;
};

/// Users and their tokens. Every call is made inside a transaction on the database.
class user_store {
 public:
  explicit user_store(database& on) : on_(on) {}

  [[nodiscard]] std::optional<user> find(std::int64_t id);

  /// The user of that name, made when there is none; `created` tells.
  user ensure(std::string_view name, std::int64_t now, bool& created);

  /// Any user: the first one made.
  [[nodiscard]] std::optional<user> find_first();

  /// Enters a token, or gives a known one a new user and expiry.
  void add_token(std::string_view token, std::string_view kind, std::int64_t user, std::int64_t expires_at);
  [[nodiscard]] std::optional<token_state> find_token(std::string_view token, std::string_view kind, std::int64_t now);
  void spend_token(std::string_view token);

  /// Removes a token, and every token of the same user when it is a refresh token.
  void revoke_token(std::string_view token);

  void add_used(std::int64_t user, std::int64_t bytes);

 private:
  database& on_;
};

}  // namespace tarvex::emulator
