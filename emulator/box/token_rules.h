#pragma once

#include "base/settings.h"
#include "store/token_store.h"

#include <cstdint>
#include <optional>
#include <string_view>

namespace tarvex::emulator {

/// How long tokens live, what follows what, and what ends them. Every call is made inside a transaction.
///
/// A renewal does not end the old pair. The old refresh token gives the same new pair as often as it comes, and the old
/// access token opens what it opened, until the new access token is used for the first time: that ends every earlier
/// pair of the sign-in. The setting `refresh=strict` differs in one thing: a refresh token gives a new pair once only.

/// Who asks for tokens, and when.
struct token_order {
  const settings& set;
  std::int64_t now = 0;
  std::string_view client = {};
};

/// The first pair of a sign-in; a server-side grant's has no refresh token, and stands alone.
[[nodiscard]] token_pair tokens_begin(token_store& tokens, const token_order& order, std::int64_t user,
                                      bool with_refresh);

/// What a refresh token gives, or why it gives nothing, in Box's words.
struct renewal {
  std::optional<token_pair> pair = {};
  std::string_view refusal = {};
};
[[nodiscard]] renewal tokens_renew(token_store& tokens, const token_order& order, std::string_view refresh_token);

/// Whose access token this is; nothing when it is unknown, expired or ended. Counts as its use.
[[nodiscard]] std::optional<std::int64_t> tokens_use(token_store& tokens, std::string_view access_token,
                                                     std::int64_t now);

/// Ends the sign-in of an access or refresh token, or a token of the command line; other sign-ins live on. False: the
/// token is another client's. One that is unknown or has ended already is no mistake.
[[nodiscard]] bool tokens_revoke(token_store& tokens, std::string_view client, std::string_view token);

/// When an authorisation code ends that is given now.
[[nodiscard]] std::int64_t code_end(std::int64_t now);

}  // namespace tarvex::emulator
