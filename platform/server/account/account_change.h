#pragma once

#include "account/account_files.h"

#include <string>
#include <vector>

namespace tarvex::server {

/// Changes settings of an account ("KEY=VALUE", see account_setting_parse), all of them or none. Throws
/// account_failure, as the others here.
void account_set(const account_files& files, const std::string& name, const std::vector<std::string>& settings);

/// Gives an account another password. \param file  see new_password_hash
void account_password(const account_files& files, const std::string& name, const std::string& file);

/// Seals all records with another key.
void account_rekey(account_files& files, const std::string& new_key_file);

}  // namespace tarvex::server
