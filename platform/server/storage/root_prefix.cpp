#include "storage/root_prefix.h"

#include "base/text.h"
#include "ftp/path.h"

#include <algorithm>
#include <array>
#include <optional>
#include <stdexcept>
#include <utility>

namespace tarvex::server {

namespace {

using path_writer = std::string (*)(std::string_view path);

std::string as_it_is(std::string_view path) {
  return std::string(path);
}

std::string with_quotes_doubled(std::string_view path) {
  const std::string quoted = path_quoted(path);
  return quoted.substr(1, quoted.size() - 2);
}

std::string with_escapes(std::string_view path) {
  std::string text;
  for (const char byte : path) {
    if (byte == '"' || byte == '\\') text += '\\';
    text += byte;
  }
  return text;
}

/// How a path may be written.
constexpr std::array<path_writer, 3> SPELLINGS = {as_it_is, with_quotes_doubled, with_escapes};

/// Whether a path that is read up to there may be over: a name may go on with the letters and marks of names.
bool may_end_before(std::string_view rest) {
  const auto goes_on = [](char byte) {
    return is_alphanumeric(byte) || byte == '-' || byte == '_' || static_cast<unsigned char>(byte) >= 0x80;
  };
  return rest.empty() || !goes_on(rest.front());
}

bool may_begin_behind(std::string_view text) {
  return text.empty() || std::string_view(" \"'(:=").find(text.back()) != std::string_view::npos;
}

/// Where the value of a line "...Path: VALUE" begins, behind its quote; nothing for other lines.
std::optional<std::size_t> value_begin(std::string_view line) {
  const std::size_t colon = line.find(": ");
  const std::string_view key = line.substr(0, colon);
  if (colon == std::string_view::npos || !key.ends_with("Path") || key.find(' ') != std::string_view::npos)
    return std::nullopt;
  const std::size_t begin = colon + 2;
  return line.substr(begin).starts_with('"') ? begin + 1 : begin;
}

std::string normal_or_throw(std::string_view path) {
  const auto normal = path_normalise("/", path);
  if (!path.starts_with('/') || normal != path) throw std::invalid_argument("a path in Box is not absolute and normal");
  return *normal;
}

/// A path as it is written on either side.
struct spelling {
  std::string in_box;
  std::string to_client;
};

/// The spellings of the paths, the longest first.
std::vector<spelling> spellings(const root_prefix& root, std::initializer_list<std::string_view> paths) {
  std::vector<spelling> all;
  for (const std::string_view path : paths) {
    if (!root.holds(path)) continue;
    for (const path_writer write : SPELLINGS) all.push_back({write(path), write(root.to_client(path))});
  }
  std::ranges::stable_sort(all, [](const auto& a, const auto& b) { return a.in_box.size() > b.in_box.size(); });
  return all;
}

/// The line with the root taken out of its value.
std::string value_to_client(const root_prefix& root, std::string_view line, std::size_t begin) {
  const std::string_view key = line.substr(0, begin), value = line.substr(begin);
  for (const spelling& top : spellings(root, {root.path()})) {
    if (!value.starts_with(top.in_box)) continue;
    const std::string_view rest = value.substr(top.in_box.size());
    if (rest.starts_with('/')) return std::string(key).append(rest);
    if (rest.empty() || rest == "\"") return std::string(key).append("/").append(rest);
  }
  return std::string(line);
}

/// The sentence with the root taken out of the paths that it is about, and of others that go on below the root.
std::string sentence_to_client(const root_prefix& root, std::string_view line,
                               std::initializer_list<std::string_view> about) {
  const auto named = [&line](const spelling& path) {
    return line.starts_with(path.in_box) && may_end_before(line.substr(path.in_box.size()));
  };
  const auto below = [&line](const spelling& top) { return line.starts_with(top.in_box + "/"); };
  const std::vector<spelling> known = spellings(root, about);
  const std::vector<spelling> tops = spellings(root, {root.path()});
  std::string text;
  while (!line.empty()) {
    const bool may_begin = line.front() == '/' && may_begin_behind(text);
    const auto path = may_begin ? std::ranges::find_if(known, named) : known.end();
    const auto top = may_begin ? std::ranges::find_if(tops, below) : tops.end();
    const bool is_known = path != known.end();
    if (!is_known && top != tops.end()) line.remove_prefix(top->in_box.size());
    text.append(is_known ? std::string_view(path->to_client) : line.substr(0, 1));
    line.remove_prefix(is_known ? path->in_box.size() : 1);
  }
  return text;
}

}  // namespace

root_prefix::root_prefix(std::string root) : path_(normal_or_throw(root)) {}

bool root_prefix::holds(std::string_view in_box) const {
  return path_is_within(in_box, path_);
}

std::string root_prefix::to_box(std::string_view path) const {
  std::string normal = normal_or_throw(path);
  if (is_top()) return normal;
  return normal == "/" ? path_ : path_ + normal;
}

std::string root_prefix::to_client(std::string_view in_box) const {
  if (is_top() || !holds(in_box)) return std::string(in_box);
  return in_box.size() == path_.size() ? "/" : std::string(in_box.substr(path_.size()));
}

std::string root_prefix::text_to_client(std::string_view line, std::initializer_list<std::string_view> about) const {
  if (is_top()) return std::string(line);
  const auto begin = value_begin(line);
  return begin ? value_to_client(*this, line, *begin) : sentence_to_client(*this, line, about);
}

}  // namespace tarvex::server
