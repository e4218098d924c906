#include "config/accounts_state.h"

#include <algorithm>

namespace tarvex::server {

std::optional<account_closure> account_closed(const account& who, std::chrono::sys_seconds now) {
  if (who.disabled) return account_closure::disabled;
  if (who.expires && now >= std::chrono::sys_days(*who.expires) + std::chrono::days(1)) return account_closure::expired;
  if (!who.mistake.empty()) return account_closure::broken;
  return std::nullopt;
}

std::string_view account_closure_text(account_closure why) {
  switch (why) {
    case account_closure::disabled:
      return "disabled";
    case account_closure::expired:
      return "expired";
    case account_closure::broken:
      break;
  }
  return "broken";
}

bool account_admits(const account& who, const boost::asio::ip::address& from) {
  return who.allow.empty() || std::any_of(who.allow.begin(), who.allow.end(), [&](const client_network& network) {
           return client_network_holds(network, from);
         });
}

}  // namespace tarvex::server
