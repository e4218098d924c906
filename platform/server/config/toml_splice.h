#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace tarvex::server {

/// A piece of a text, by its bytes, and what comes in its place.
struct toml_splice {
  std::size_t begin = 0;
  std::size_t end = 0;
  std::string text = {};
};

/// The text with the change in it.
[[nodiscard]] std::string toml_spliced(std::string_view text, const toml_splice& change);

/// Whole lines, put in front of a place where a line begins, or at the end of a text whose last line may have no end.
/// \param content  without the end of its last line
[[nodiscard]] toml_splice toml_inserted(std::string_view text, std::size_t at, const std::string& content,
                                        std::string_view line_end);

}  // namespace tarvex::server
