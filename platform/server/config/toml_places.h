/// \file
/// Where the parts of a TOML text stand. For the sources of this room only.
#pragma once

#include <toml++/toml.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace tarvex::server {

/// The lines of a text, which has to outlive this. Lines are counted from 1, as toml++ counts them, bytes from 0.
class toml_lines {
 public:
  explicit toml_lines(std::string_view text);

  [[nodiscard]] unsigned count() const { return static_cast<unsigned>(starts_.size()); }
  /// First byte of a line; for the line behind the last one the text's size.
  [[nodiscard]] std::size_t start(unsigned line) const;
  /// A line without its end; empty: there is none.
  [[nodiscard]] std::string_view line(unsigned number) const;
  [[nodiscard]] bool is_blank(unsigned line) const;
  [[nodiscard]] bool is_comment(unsigned line) const;
  /// The byte that toml++ means, whose columns count characters.
  [[nodiscard]] std::size_t offset(const toml::source_position& position) const;
  /// How lines end here: "\n" or "\r\n", as the first one does.
  [[nodiscard]] std::string_view line_end() const;

 private:
  std::string_view text_;
  std::vector<std::size_t> starts_;
};

/// A header ("[x]", "[[x]]") or a key with its value, which TOML puts on lines of their own.
struct toml_statement {
  std::string_view top;      ///< first part of its full name; borrowed from the table
  const toml::table* table;  ///< a header's; null: a key with its value
  unsigned first = 0;        ///< line
  unsigned last = 0;         ///< line
};

/// All statements of a document, by line.
[[nodiscard]] std::vector<toml_statement> toml_statements(const toml::table& root, std::string_view text,
                                                          const toml_lines& lines);

}  // namespace tarvex::server
