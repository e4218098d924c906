/// \file
/// Whether an account may be used: questions about what the accounts file says of it, without looking anywhere else.
#pragma once

#include "config/accounts.h"

#include <boost/asio/ip/address.hpp>

#include <chrono>
#include <optional>
#include <string_view>

namespace tarvex::server {

/// Why nobody is served by an account. When several reasons hold, the first of these counts.
enum class account_closure {
  disabled,
  expired,  ///< the last day on which it is served is over, by UTC
  broken    ///< there is a mistake in its table
};

/// \return why the account is closed at a moment; nothing: it is open.
[[nodiscard]] std::optional<account_closure> account_closed(const account& who, std::chrono::sys_seconds now);

/// "disabled", "expired" or "broken".
[[nodiscard]] std::string_view account_closure_text(account_closure why);

/// Whether the account may be used from an address: one of the networks that it allows, or it names none.
[[nodiscard]] bool account_admits(const account& who, const boost::asio::ip::address& from);

}  // namespace tarvex::server
