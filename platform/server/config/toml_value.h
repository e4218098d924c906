#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <variant>
#include <vector>

namespace tarvex::server {

/// A value that is written into a TOML file.
using toml_value = std::variant<std::string, std::int64_t, bool, std::chrono::year_month_day, std::vector<std::string>>;

/// The value as it stands in a file, on one line. Texts have to be UTF-8.
[[nodiscard]] std::string toml_value_text(const toml_value& value);

/// A key, or a table's name, as it stands in a file: bare where that can be (TOML 1.0, "Keys"), else in quotes.
[[nodiscard]] std::string toml_key_text(const std::string& key);

}  // namespace tarvex::server
