#pragma once

#include "account/account_files.h"
#include "config/accounts.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace tarvex::server {

/// What is known of an account, without any secret and without asking Box.
struct account_status {
  account who;                ///< as the accounts file says
  std::string grant;          ///< "box", "ccg", "jwt" or "file"
  std::string state;          ///< "disabled", "expired", "broken", "sign-in needed" or "ready": the first that holds
  std::string box_user = {};  ///< id; empty: not known
  std::string login = {};
  std::uint64_t max_upload = 0;  ///< bytes of one file, as Box says; 0: not known
  std::optional<std::chrono::sys_seconds> token_expires_at = {};
  std::string last_error = {};  ///< one line; empty: none
};

[[nodiscard]] account_status account_status_of(const account_files& files, const account& who);

}  // namespace tarvex::server
