/// \file
/// The keys of an account's table, one row for each, and how their values are read. For the sources of this room only,
/// but for the names.
#pragma once

#include "config/accounts.h"
#include "config/toml_file.h"

#include <string>
#include <string_view>
#include <vector>

namespace tarvex::server {

/// Reads one key's value into an account, or enters the mistake; what is no value for the key is not taken.
/// \return false: there is no such key.
[[nodiscard]] bool account_key_read(std::string_view key, const toml_entry& entry, account& out,
                                    mistake_list& mistakes);

/// All keys.
[[nodiscard]] std::vector<std::string_view> account_key_names();

/// What keeps a text from being a login name, to follow the name; empty: nothing.
[[nodiscard]] std::string account_name_error(std::string_view name);

}  // namespace tarvex::server
