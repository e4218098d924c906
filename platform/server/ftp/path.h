#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tarvex::server {

/// Makes a client's path absolute and normal: joined to `directory` (absolute, normal) unless it begins with "/"; no
/// ".", "..", "//" or trailing "/" left; ".." of the root is the root. An empty path is the directory itself.
/// \return nothing when the path holds a NUL, CR or LF, or is longer than 4096 bytes.
std::optional<std::string> path_normalise(std::string_view directory, std::string_view path);

/// The path between double quotes, quotes inside doubled (RFC 959 appendix II, the 257 reply).
std::string path_quoted(std::string_view path);

/// Cuts a path off `rest`: one between double quotes (quotes inside doubled), or else the first word, and the blank
/// after it. \return nothing when the closing quote or the path is missing.
std::optional<std::string> path_take(std::string_view& rest);

/// The folder that holds an absolute, normal path; "/" for the root.
std::string path_parent(std::string_view path);

/// Whether `path` is `above` or lies below it; both absolute and normal.
bool path_is_within(std::string_view path, std::string_view above);

/// The text after the last "/"; "/" for the root.
std::string path_base_name(std::string_view path);

}  // namespace tarvex::server
