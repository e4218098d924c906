#pragma once

#include "broker/token_record.h"
#include "config/accounts.h"

#include <cstdint>
#include <optional>
#include <string>

namespace tarvex::server {

/// A credential for the storage, or why there is none.
struct credential_answer {
  int code = 0;           ///< of the reply to a failure, 421 or 530; 0: none failed
  std::string text = {};  ///< the failure in one line, for the client: no path and no content show in it
  std::optional<std::string> document = {};  ///< none: there is none, which the storage is to find out
  std::string access_token = {};
};

/// The document that the storage takes ("access_token", "token_expiry", "sub", "max_upload").
[[nodiscard]] credential_answer credential_of_record(const account& of, const token_record& record);

/// Reads the account's credential file: a JSON object of up to 1 MiB, a regular file that nobody but its owner may
/// write. One that does not exist is no failure. Failures are logged.
[[nodiscard]] credential_answer credential_of_file(const account& of);

}  // namespace tarvex::server
