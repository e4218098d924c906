#pragma once

#include "config/toml_edit.h"

#include <string>
#include <string_view>

namespace tarvex::server {

/// Reads "KEY=VALUE", as people write it on the command line, into what the accounts file gets: root, permissions,
/// allow (separated by commas), expires (YYYY-MM-DD), disabled, max_sessions, max_upload. The file's own rules decide
/// what is a value. An empty VALUE removes the key. \return what is wrong and what is allowed; empty: nothing, and
/// `out` is filled
[[nodiscard]] std::string account_setting_parse(std::string_view text, toml_setting& out);

/// One line for each key, for the command's help.
[[nodiscard]] std::string account_setting_help();

}  // namespace tarvex::server
