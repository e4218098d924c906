#pragma once

#include "base/secret.h"
#include "oauth/jwt_app.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tarvex::server {

/// How an account gets its tokens.
enum class grant_kind {
  box,  ///< a person has consented: a refresh token, which each renewal replaces
  ccg,  ///< client credentials of the organisation's app
  jwt   ///< an assertion that is signed with the app's key
};

[[nodiscard]] std::string_view grant_word(grant_kind grant);

/// What Box gave at once.
struct token_pair {
  secret access;
  secret refresh;  ///< empty where the grant has none
  std::chrono::sys_seconds expires_at{};
};

/// What the broker keeps of an account.
struct token_record {
  std::uint64_t generation = 0;  ///< how often tokens were had; one more with each pair
  grant_kind grant = grant_kind::box;
  token_pair current;
  std::optional<token_pair> previous;  ///< until the current one has served
  bool attempt_open = false;           ///< Box was asked for a pair, and what it said is not known
  std::chrono::sys_seconds renewed_at{};
  bool sign_in_needed = false;   ///< Box takes the refresh token no more
  std::string last_error;        ///< one line; empty: none since the last pair
  std::string box_user;          ///< id
  std::string box_login;         ///< for people
  std::uint64_t max_upload = 0;  ///< bytes of one file, as Box says
  std::optional<jwt_app> app;    ///< of jwt; the others use the configuration's
};

/// As text; throws std::bad_alloc.
[[nodiscard]] secret record_write(const token_record& record);
/// Nothing when the text is none.
[[nodiscard]] std::optional<token_record> record_read(std::string_view text);

/// Whether the access token has at least this long to live.
[[nodiscard]] bool token_lives(const token_pair& pair, std::chrono::sys_seconds now, std::chrono::seconds least);

}  // namespace tarvex::server
