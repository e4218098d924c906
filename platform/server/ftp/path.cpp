#include "ftp/path.h"

#include "base/text.h"

#include <algorithm>

namespace tarvex::server {

namespace {

constexpr std::size_t LONGEST_PATH_BYTES = 4096;

void remove_last_component(std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash != std::string::npos) path.resize(slash);
}

}  // namespace

std::optional<std::string> path_normalise(std::string_view directory, std::string_view path) {
  constexpr std::string_view refused("\0\r\n", 3);
  if (path.size() > LONGEST_PATH_BYTES || path.find_first_of(refused) != std::string_view::npos) return std::nullopt;
  std::string normal;
  if (!path.starts_with('/') && directory != "/") normal = directory;
  while (!path.empty()) {
    const std::size_t slash = path.find('/');
    const std::string_view component = path.substr(0, slash);
    path.remove_prefix(slash == std::string_view::npos ? path.size() : slash + 1);
    if (component.empty() || component == ".") continue;
    if (component == "..") {
      remove_last_component(normal);
    } else {
      normal.append("/").append(component);
    }
  }
  if (normal.size() > LONGEST_PATH_BYTES) return std::nullopt;
  return normal.empty() ? "/" : normal;
}

std::string path_quoted(std::string_view path) {
  std::string quoted = "\"";
  for (const char byte : path) {
    if (byte == '"') quoted += '"';
    quoted += byte;
  }
  quoted += '"';
  return quoted;
}

std::optional<std::string> path_take(std::string_view& rest) {
  if (!rest.starts_with('"')) {
    const std::string_view word = take_word(rest);
    return word.empty() ? std::nullopt : std::optional<std::string>(word);
  }
  std::string path;
  for (std::size_t i = 1; i < rest.size(); ++i) {
    if (rest[i] == '"') {
      const bool doubled = rest.substr(i + 1).starts_with('"');
      const bool closing = i + 1 == rest.size() || rest[i + 1] == ' ';
      if (!doubled && (!closing || path.empty())) return std::nullopt;
      if (!doubled) {
        rest.remove_prefix(std::min(rest.size(), i + 2));
        return path;
      }
      ++i;
    }
    path += rest[i];
  }
  return std::nullopt;
}

std::string path_parent(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  return slash == 0 || slash == std::string_view::npos ? "/" : std::string(path.substr(0, slash));
}

bool path_is_within(std::string_view path, std::string_view above) {
  if (above == "/") return true;
  return path.starts_with(above) && (path.size() == above.size() || path[above.size()] == '/');
}

std::string path_base_name(std::string_view path) {
  if (path == "/") return "/";
  return std::string(path.substr(path.rfind('/') + 1));
}

}  // namespace tarvex::server
