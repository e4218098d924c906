#include "config/toml_file.h"

#include <filesystem>

namespace tarvex::server {

std::optional<toml::table> toml_read(mistake_list& mistakes, file_trust trust) {
  std::string content;
  if (const auto failure = regular_file_read(mistakes.file, trust, TOML_LARGEST_MIB, content)) {
    mistakes.add(0, failure->text);
    return std::nullopt;
  }
  return toml_parse(content, mistakes);
}

std::optional<toml::table> toml_parse(std::string_view text, mistake_list& mistakes) {
  try {
    return toml::parse(text);
  } catch (const toml::parse_error& mistake) {
    mistakes.add(mistake.source().begin.line, std::string(mistake.description()));
    return std::nullopt;
  }
}

std::string toml_describe(const toml::node& node) {
  if (const auto* text = node.as_string()) return "the text \"" + text->get() + "\"";
  if (const auto* integer = node.as_integer()) return std::to_string(integer->get());
  if (const auto* flag = node.as_boolean()) return flag->get() ? "true" : "false";
  return node.is_array() ? "a list" : node.is_table() ? "a table" : "a fraction, date or time";
}

void toml_refuse(const toml_entry& entry, std::string_view expected, mistake_list& mistakes) {
  mistakes.add(entry.line,
               entry.where + ": expected " + std::string(expected) + ", found " + toml_describe(entry.node));
}

std::optional<std::int64_t> toml_number(const toml_entry& entry, std::int64_t lowest, std::int64_t highest,
                                        mistake_list& mistakes) {
  const auto* const number = toml_expect<std::int64_t>(entry, mistakes);
  if (number == nullptr) return std::nullopt;
  if (*number >= lowest && *number <= highest) return *number;
  toml_refuse(entry, "a number from " + std::to_string(lowest) + " to " + std::to_string(highest), mistakes);
  return std::nullopt;
}

std::string path_beside(const std::string& file, const std::string& path) {
  return (std::filesystem::absolute(file).parent_path() / path).lexically_normal().string();
}

}  // namespace tarvex::server
