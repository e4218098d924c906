#include "config/toml_file.h"

#include "tarvex_common.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

namespace tarvex::server {

namespace {

constexpr std::size_t LARGEST_FILE_BYTES = 4U << 20;

/// \return nothing, and why in `error`, when the file cannot be read.
std::optional<std::string> read_file(const std::string& path, std::string& error) {
  const owner<std::FILE, std::fclose> file(std::fopen(path.c_str(), "re"));
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

}  // namespace

std::optional<toml::table> toml_read(mistake_list& mistakes) {
  std::string error;
  const std::optional<std::string> content = read_file(mistakes.file, error);
  if (!content) {
    mistakes.add(0, error);
    return std::nullopt;
  }
  try {
    return toml::parse(*content);
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

std::string path_beside(const std::string& file, const std::string& path) {
  return (std::filesystem::absolute(file).parent_path() / path).lexically_normal().string();
}

}  // namespace tarvex::server
