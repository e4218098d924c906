#pragma once

#include "broker/token_store.h"
#include "oauth/token_request.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace tarvex::server {

/// The storage renews a token that has less to live than this, and uses one that has more.
constexpr std::chrono::seconds LEAST_TOKEN_LIFE{100};

/// What tokens are renewed with.
struct renewal_setup {
  const token_store& store;
  const token_endpoint& endpoint;
  /// Gives the configuration's app; it is read anew each time, since secrets are replaced. \return what is wrong;
  /// empty: nothing.
  std::function<std::string(oauth_app& out)> app;
  std::chrono::milliseconds patience{60000};    ///< how long answers that got lost are asked for again
  std::chrono::milliseconds first_pause{1000};  ///< before the second request; twice as long before each further one
  int cancel_fd = -1;                           ///< readable: the program is to end
  std::function<void(const char* step)> at_step = {};  ///< tests: called at each step on the way
};

struct renewal_answer {
  enum class verdict {
    good,            ///< `record` has a token that lives
    sign_in_needed,  ///< final: Box takes the account's grant no more
    refused,         ///< Box does not take the app, or the request; somebody has to see to it
    unavailable      ///< nothing was had this time
  };
  verdict how = verdict::unavailable;
  std::optional<token_record> record = {};
  std::string reason = {};  ///< one line, without any secret
  bool renewed = false;     ///< good: Box was asked
};

/// The account's token, renewed where it has less than `least` to live, or where its generation is the one that Box is
/// said to have refused. Blocks for as long as `patience` and half a minute more; holds the account's lock meanwhile,
/// so that of many who ask one asks Box. The new pair is on the disk before anybody gets it. Any thread. \param refused
/// generation; 0: none
[[nodiscard]] renewal_answer renew_account(const renewal_setup& setup, const std::string& name,
                                           std::chrono::seconds least, std::uint64_t refused);

/// Asks Box for tokens of a record's grant, once, or twice where the clock of this host is off.
[[nodiscard]] token_answer renewal_ask(const renewal_setup& setup, const token_record& record);

}  // namespace tarvex::server
