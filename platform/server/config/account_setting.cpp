#include "config/account_setting.h"

#include "base/text.h"
#include "config/account_keys.h"
#include "config/suggestion.h"

#include <fmt/core.h>

#include <algorithm>
#include <optional>
#include <utility>

namespace tarvex::server {

namespace {

/// A date, number or flag as TOML writes it. What is none stays a text, which the reader of the key refuses.
toml_value bare_value(std::string_view text) {
  constexpr std::string_view NOT_IN_VALUES = "\"'[]{}#\r\n";
  if (text.find_first_of(NOT_IN_VALUES) != std::string_view::npos) return std::string(text);
  try {
    const toml::table parsed = toml::parse("value = " + std::string(text));
    const toml::node& node = *parsed.get("value");
    if (const auto* const number = node.as_integer()) return number->get();
    if (const auto* const flag = node.as_boolean()) return flag->get();
    if (const auto* const date = node.as_date())
      return std::chrono::year_month_day{std::chrono::year(date->get().year), std::chrono::month(date->get().month),
                                         std::chrono::day(date->get().day)};
  } catch (const toml::parse_error&) {
  }
  return std::string(text);
}

toml_value text_value(std::string_view text) {
  return std::string(text);
}

/// Items between commas, without the blanks around them.
toml_value list_value(std::string_view text) {
  std::vector<std::string> items;
  while (!text.empty()) {
    std::string_view item = take_field(text, ',');
    item.remove_prefix(std::min(item.find_first_not_of(' '), item.size()));
    item.remove_suffix(item.size() - (item.find_last_not_of(' ') + 1));
    items.emplace_back(item);
  }
  return items;
}

/// A key that the command line knows, and how its text becomes a value of TOML.
struct written_key {
  std::string_view key;
  toml_value (*value)(std::string_view text);
  std::string_view help;
};
constexpr written_key WRITTEN_KEYS[] = {
    {"root", text_value, "path in Box of the folder that the account sees as /, such as /Projects/X"},
    {"permissions", text_value, "full, read-only or upload-only"},
    {"allow", list_value, "networks or addresses that it may come from, such as 192.0.2.0/24,2001:db8::1"},
    {"expires", bare_value, "last day on which it is served (UTC), such as 2027-01-31"},
    {"disabled", bare_value, "true or false"},
    {"max_sessions", bare_value, "sessions at a time, from 1 to 100000"},
    {"max_upload", bare_value, "bytes of one file, from 1"},
};

/// Asks the reader of the key, which reads the accounts file, what it thinks of the value.
std::string value_error(std::string_view key, const std::string& value) {
  const std::string line = std::string(key) + " = " + value;
  mistake_list mistakes;
  account ignored;
  try {
    const toml::table parsed = toml::parse(line);
    (void)account_key_read(key, {*parsed.get(key), 1, std::string(key)}, ignored, mistakes);
  } catch (const toml::parse_error& mistake) {
    return fmt::format("{}: {}", key, mistake.description());
  }
  return mistakes.found.empty() ? "" : mistakes.found.front().text;
}

std::string unknown_key(std::string_view key) {
  std::vector<std::string_view> known;
  for (const written_key& row : WRITTEN_KEYS) known.push_back(row.key);
  std::string names;
  for (const std::string_view name : known) names.append(names.empty() ? "" : ", ").append(name);
  return fmt::format("unknown key \"{}\"{}; there are {}", key, suggestion(key, known), names);
}

}  // namespace

std::string account_setting_parse(std::string_view text, toml_setting& out) {
  const std::size_t equals = text.find('=');
  if (equals == std::string_view::npos)
    return fmt::format("\"{}\": expected KEY=VALUE, or KEY= to remove the key", text);
  const std::string_view key = text.substr(0, equals);
  const std::string_view value = text.substr(equals + 1);
  const auto* const row = std::find_if(std::begin(WRITTEN_KEYS), std::end(WRITTEN_KEYS),
                                       [&](const written_key& known) { return known.key == key; });
  if (row == std::end(WRITTEN_KEYS)) return unknown_key(key);
  toml_setting setting{std::string(key), std::nullopt};
  if (!value.empty()) {
    setting.value = row->value(value);
    if (std::string error = value_error(key, toml_value_text(*setting.value)); !error.empty()) return error;
  }
  out = std::move(setting);
  return {};
}

std::string account_setting_help() {
  std::string text;
  for (const written_key& row : WRITTEN_KEYS) text += fmt::format("{}={}\n", row.key, row.help);
  return text;
}

}  // namespace tarvex::server
