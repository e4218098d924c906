#include "config/toml_splice.h"

namespace tarvex::server {

std::string toml_spliced(std::string_view text, const toml_splice& change) {
  return std::string(text.substr(0, change.begin)).append(change.text).append(text.substr(change.end));
}

toml_splice toml_inserted(std::string_view text, std::size_t at, const std::string& content,
                          std::string_view line_end) {
  const bool open = at == text.size() && !text.empty() && !text.ends_with('\n');
  return {at, at, (open ? std::string(line_end) : std::string()) + content + std::string(line_end)};
}

}  // namespace tarvex::server
