/// \file
/// Changes of a TOML file's text in place: what is not changed stays as it is, byte for byte, with its comments, blank
/// lines, order and line ends. Only tables that stand at the top are known here. After each change the text is read
/// again and compared with what it should mean; where it means anything else, as with forms that cannot be changed
/// here, the change is refused and nothing has happened.
#pragma once

#include "config/toml_value.h"

#include <optional>
#include <string>
#include <vector>

namespace tarvex::server {

/// What becomes of one key of a table.
struct toml_setting {
  std::string key;
  std::optional<toml_value> value;  ///< nothing: the key is removed, with the comment behind it
};

/// Sets and removes keys of a table. A value that is replaced keeps its place and the comment behind it, a new key
/// comes after the table's last one, a new table at the end of the text. \return why not, for people; empty: done
[[nodiscard]] std::string toml_put(std::string& text, const std::string& table,
                                   const std::vector<toml_setting>& settings);

/// Removes a table with its sub-tables and the comments inside it. Those above it stay, and those that follow it after
/// a blank line or stand directly above the next table. \return why not, for people; empty: done, also when there was
/// no such table
[[nodiscard]] std::string toml_remove(std::string& text, const std::string& table);

}  // namespace tarvex::server
