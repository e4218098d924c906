#pragma once

#include "config/accounts.h"

#include <chrono>
#include <string>

namespace tarvex::server {

/// Who is logged in, and how the way there went.
struct login_state {
  std::string user;  ///< of the last USER; empty: none since
  bool logged_in = false;
  unsigned failures = 0;
  unsigned bad_commands = 0;
  /// Who has not logged in by then is sent away, whatever else was said.
  std::chrono::steady_clock::time_point deadline;
  std::string name;                                             ///< the storage's name for the user
  account_permissions permissions = account_permissions::full;  ///< of the account, once logged in
};

}  // namespace tarvex::server
