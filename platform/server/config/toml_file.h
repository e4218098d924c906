#pragma once

#include "config/configuration.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tarvex::server {

enum class toml_kind { text, integer, flag, list, table, other };

/// One value of a TOML file and the line where it stands.
struct toml_value {
  toml_kind kind = toml_kind::table;
  unsigned line = 0;
  std::string text;                                         ///< kind text
  std::int64_t integer = 0;                                 ///< kind integer
  bool flag = false;                                        ///< kind flag
  std::vector<toml_value> items;                            ///< kind list
  std::vector<std::pair<std::string, toml_value>> members;  ///< kind table; `line` is that of the key
};

/// The mistakes found so far in one file.
struct mistake_list {
  std::string file;
  std::vector<configuration_mistake> found;

  void add(unsigned line, std::string text) { found.push_back({file, line, std::move(text)}); }
  /// The mistakes in the order of their lines.
  std::vector<configuration_mistake> sorted() &&;
};

/// Reads `mistakes.file`, of up to 4 MiB. \return false, and the mistake entered, when it cannot be read or is no TOML.
[[nodiscard]] bool toml_read(mistake_list& mistakes, toml_value& root);

/// Enters a mistake unless `value` is of that kind. `where` names it for people: "listen in [server]".
[[nodiscard]] bool toml_expect(toml_kind kind, const toml_value& value, const std::string& where,
                               mistake_list& mistakes);

/// What was found, for people: `the text "x"`, `7`, `a list`.
std::string toml_describe(const toml_value& value);

/// Of the known names the one that `name` is most likely a misspelling of, as `; did you mean "x"?`; empty when none is
/// close.
std::string toml_suggestion(std::string_view name, const std::vector<std::string_view>& known);

/// A path as a file names it: relative ones start at the folder of `file`.
std::string path_beside(const std::string& file, const std::string& path);

}  // namespace tarvex::server
