#pragma once

#include "broker/session_line.h"
#include "config/accounts.h"
#include "config/accounts_state.h"
#include "link/messages.h"

#include <cstddef>

namespace tarvex::server {

/// What a client is told of an account that serves nobody.
[[nodiscard]] const char* login_closure_text(account_closure why);

/// Whether a session may serve an account.
/// \param who     whose name and password were right; null: nobody's
/// \param known   whether it can be told that nobody has the name, or whose password it is
/// \param others  sessions of the account besides this one
[[nodiscard]] broker_says login_judge(const session_line& line, const account* who, bool known, std::size_t others);

}  // namespace tarvex::server
