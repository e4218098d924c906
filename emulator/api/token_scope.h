#pragma once

#include "api/call.h"
#include "box/app.h"

#include <optional>
#include <string_view>

namespace tarvex::emulator {

/// Tokens that may do less than the user they stand for.

/// Answers the token-exchange grant (RFC 8693): a token for the scopes asked for, on one file or folder where
/// `resource` names one. Throws problem. Inside a transaction.
[[nodiscard]] response token_exchange(const call& of, const app& client, const pair_list& form);

/// What such a token opens: whose items, with which rights (access_right) and below which item (a typed id; empty:
/// all).
struct token_reach {
  std::int64_t user = 0;
  unsigned rights = 0;
  std::string resource = {};
};

/// Nothing for any other token, and for one that has run out. Inside a transaction.
[[nodiscard]] std::optional<token_reach> token_scope_find(const call& of, std::string_view token);

}  // namespace tarvex::emulator
