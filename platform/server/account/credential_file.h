#pragma once

#include "base/secret.h"
#include "config/accounts.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace tarvex::server {

/// What a credential file holds that others keep fresh.
struct credential_content {
  std::string error = {};  ///< one line, without the file's path; empty: the rest is good
  secret access_token = {};
  std::string box_user = {};
  std::uint64_t max_upload = 0;
  std::optional<std::chrono::sys_seconds> expires_at = {};  ///< nothing: it cannot be read
};

/// Reads an account's credential file.
[[nodiscard]] credential_content credential_file_read(const account& of);

}  // namespace tarvex::server
