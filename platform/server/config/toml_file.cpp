#include "config/toml_file.h"

#include "tarvex_common.hpp"

#include <toml++/toml.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <numeric>
#include <optional>

namespace tarvex::server {

namespace {

constexpr std::size_t LARGEST_FILE_BYTES = 4U << 20;

/// \return nothing, and why in `error`, when the file cannot be read.
std::optional<std::string> read_file(const std::string& path, std::string& error) {
  const std::unique_ptr<std::FILE, releaser<std::fclose>> file(std::fopen(path.c_str(), "re"));
  if (file == nullptr) {
    error = std::string("cannot be opened: ") + std::strerror(errno);
    return std::nullopt;
  }
  std::string content(LARGEST_FILE_BYTES + 1, '\0');
  content.resize(std::fread(content.data(), 1, content.size(), file.get()));
  if (std::ferror(file.get()) != 0) {
    error = std::string("cannot be read: ") + std::strerror(errno);
    return std::nullopt;
  }
  if (content.size() > LARGEST_FILE_BYTES) {
    error = "is larger than 4 MiB";
    return std::nullopt;
  }
  return content;
}

toml_value convert(const toml::node& node);

void convert_members(const toml::table& table, toml_value& value) {
  for (const auto& [key, node] : table) {
    toml_value& member = value.members.emplace_back(std::string(key.str()), convert(node)).second;
    member.line = key.source().begin.line;
  }
}

toml_value convert(const toml::node& node) {
  toml_value value;
  value.line = node.source().begin.line;
  if (const auto* text = node.as_string()) {
    value.kind = toml_kind::text;
    value.text = text->get();
  } else if (const auto* integer = node.as_integer()) {
    value.kind = toml_kind::integer;
    value.integer = integer->get();
  } else if (const auto* flag = node.as_boolean()) {
    value.kind = toml_kind::flag;
    value.flag = flag->get();
  } else if (const auto* list = node.as_array()) {
    value.kind = toml_kind::list;
    for (const toml::node& item : *list) value.items.push_back(convert(item));
  } else if (const auto* table = node.as_table()) {
    value.kind = toml_kind::table;
    convert_members(*table, value);
  } else {
    value.kind = toml_kind::other;
  }
  return value;
}

/// Levenshtein's distance.
std::size_t edit_distance(std::string_view a, std::string_view b) {
  std::vector<std::size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), 0U);
  for (std::size_t i = 0; i < a.size(); ++i) {
    std::size_t diagonal = row[0]++;
    for (std::size_t j = 0; j < b.size(); ++j) {
      const std::size_t replaced = diagonal + (a[i] == b[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({replaced, row[j] + 1, row[j + 1] + 1});
    }
  }
  return row.back();
}

constexpr const char* KIND_NAMES[] = {"a text in quotes", "a whole number", "true or false",
                                      "a list",           "a table",        "another value"};
static_assert(std::size(KIND_NAMES) == static_cast<std::size_t>(toml_kind::other) + 1);

}  // namespace

std::vector<configuration_mistake> mistake_list::sorted() && {
  std::stable_sort(found.begin(), found.end(), [](const auto& a, const auto& b) { return a.line < b.line; });
  return std::move(found);
}

bool toml_read(mistake_list& mistakes, toml_value& root) {
  std::string error;
  const std::optional<std::string> content = read_file(mistakes.file, error);
  if (!content) {
    mistakes.add(0, error);
    return false;
  }
  try {
    root = convert(toml::parse(*content));
    return true;
  } catch (const toml::parse_error& mistake) {
    mistakes.add(mistake.source().begin.line, std::string(mistake.description()));
    return false;
  }
}

bool toml_expect(toml_kind kind, const toml_value& value, const std::string& where, mistake_list& mistakes) {
  if (value.kind == kind) return true;
  mistakes.add(value.line,
               where + ": expected " + KIND_NAMES[static_cast<std::size_t>(kind)] + ", found " + toml_describe(value));
  return false;
}

std::string toml_describe(const toml_value& value) {
  switch (value.kind) {
    case toml_kind::text:
      return "the text \"" + value.text + "\"";
    case toml_kind::integer:
      return std::to_string(value.integer);
    case toml_kind::flag:
      return value.flag ? "true" : "false";
    case toml_kind::list:
      return "a list";
    case toml_kind::table:
      return "a table";
    case toml_kind::other:
      break;
  }
  return "a fraction, date or time";
}

std::string toml_suggestion(std::string_view name, const std::vector<std::string_view>& known) {
  std::size_t smallest = std::max<std::size_t>(2, name.size() / 3) + 1;
  std::string_view nearest;
  for (const std::string_view candidate : known) {
    const std::size_t distance = edit_distance(name, candidate);
    if (distance >= smallest) continue;
    smallest = distance;
    nearest = candidate;
  }
  return nearest.empty() ? std::string() : "; did you mean \"" + std::string(nearest) + "\"?";
}

std::string path_beside(const std::string& file, const std::string& path) {
  return (std::filesystem::absolute(file).parent_path() / path).lexically_normal().string();
}

}  // namespace tarvex::server
