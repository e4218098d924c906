#pragma once

#include "base/secret.h"
#include "oauth/https.h"

#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tarvex::server {

/// The app that was registered with Box.
struct oauth_app {
  std::string client_id;
  secret client_secret;
};

/// Where tokens are had.
struct token_endpoint {
  std::string token_url;
  std::string revoke_url;
  https_setup https;
};

/// What Box said to a request for a token.
struct token_answer {
  enum class verdict {
    granted,
    grant_refused,  ///< what was shown (a refresh token, a code, an assertion) is good for nothing
    app_refused,    ///< Box does not take the app, or the request; the grant may be good
    again           ///< no answer, or one of no use: the same may succeed later
  };
  verdict how = verdict::again;
  secret access_token = {};
  secret refresh_token = {};                 ///< empty where the grant has none
  std::chrono::sys_seconds expires_at = {};  ///< by this host's clock
  std::string reason = {};                   ///< of a failure: one line, without any secret
  std::optional<unsigned> retry_after_s = {};
  std::optional<std::chrono::sys_seconds> date = {};  ///< Box's clock
  bool clock_refused = false;                         ///< Box did not like the time in an assertion
};

using form_pairs = std::vector<std::pair<std::string, std::string>>;

/// Asks for tokens, once (RFC 6749 section 5). Blocks, half a minute at most. Any thread.
/// \param form       grant_type and what belongs to it; id and secret of the app are added
/// \param refreshes  an answer without a refresh token is of no use
/// \param cancel_fd  readable: give it up; -1: nothing can
[[nodiscard]] token_answer token_ask(const token_endpoint& endpoint, const oauth_app& app, form_pairs form,
                                     bool refreshes, int cancel_fd);

/// Ends a token and what belongs to it (RFC 7009). \return why it could not be done; empty: done.
[[nodiscard]] std::string token_revoke(const token_endpoint& endpoint, const oauth_app& app, const std::string& token);

}  // namespace tarvex::server
