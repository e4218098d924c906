#pragma once

#include "account/account_files.h"

#include <string>

namespace tarvex::server {

/// Prints all accounts: a table for people, or an array of JSON objects. Throws account_failure.
void account_list(const account_files& files, bool json);
/// Prints one of them, with all that is known and no secret.
void account_show(const account_files& files, const std::string& name, bool json);

}  // namespace tarvex::server
