#include "config/toml_value.h"

#include "base/text.h"

#include <fmt/core.h>

#include <algorithm>
#include <iterator>
#include <string_view>

namespace tarvex::server {

namespace {

/// A basic string: it can hold everything, in contrast to those in single quotes.
std::string basic_string_text(std::string_view text) {
  std::string out = "\"";
  for (const char byte : text) {
    if (byte == '"' || byte == '\\') out.push_back('\\');
    if (is_control(byte)) {
      fmt::format_to(std::back_inserter(out), "\\u{:04X}", static_cast<unsigned>(byte));
    } else {
      out.push_back(byte);
    }
  }
  return out.append("\"");
}

struct value_writer {
  std::string operator()(const std::string& text) const { return basic_string_text(text); }
  std::string operator()(std::int64_t number) const { return std::to_string(number); }
  std::string operator()(bool flag) const { return flag ? "true" : "false"; }
  std::string operator()(const std::chrono::year_month_day& day) const {
    return fmt::format("{:04}-{:02}-{:02}", static_cast<int>(day.year()), static_cast<unsigned>(day.month()),
                       static_cast<unsigned>(day.day()));
  }
  std::string operator()(const std::vector<std::string>& items) const {
    std::string out = "[";
    for (const std::string& item : items) out.append(out.size() == 1 ? "" : ", ").append(basic_string_text(item));
    return out.append("]");
  }
};

}  // namespace

std::string toml_value_text(const toml_value& value) {
  return std::visit(value_writer{}, value);
}

std::string toml_key_text(const std::string& key) {
  const bool bare = !key.empty() && std::all_of(key.begin(), key.end(), [](char byte) {
    return is_alphanumeric(byte) || byte == '-' || byte == '_';
  });
  return bare ? key : basic_string_text(key);
}

}  // namespace tarvex::server
