/// \file
/// TOML files through toml++'s own nodes, with the words for what is wrong in them. For the sources of this room only:
/// others see the records that are read from such files.
#pragma once

#include "base/regular_file.h"
#include "config/mistake.h"

#include <toml++/toml.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

namespace tarvex::server {

/// A value of a file, as readers need it and mistakes name it.
struct toml_entry {
  const toml::node& node;
  unsigned line;      ///< of its key; a list's item has its own
  std::string where;  ///< for people: "listen in [server]"
};

constexpr std::size_t TOML_LARGEST_MIB = 4;

/// Reads `mistakes.file`, a regular file of up to TOML_LARGEST_MIB. \return nothing, and the mistake entered, when it
/// cannot be read or is no TOML.
[[nodiscard]] std::optional<toml::table> toml_read(mistake_list& mistakes, file_trust trust);

/// Reads a text of `mistakes.file`. \return nothing, and the mistake entered, when it is no TOML.
[[nodiscard]] std::optional<toml::table> toml_parse(std::string_view text, mistake_list& mistakes);

/// What was found, for people: `the text "x"`, `7`, `a list`.
std::string toml_describe(const toml::node& node);

/// Enters the mistake of a value that is not what it should be: "WHERE: expected EXPECTED, found ...".
void toml_refuse(const toml_entry& entry, std::string_view expected, mistake_list& mistakes);

/// How people call a type of TOML.
template <typename T>
constexpr std::string_view TOML_TYPE_TEXT = "";
template <>
inline constexpr std::string_view TOML_TYPE_TEXT<std::string> = "a text in quotes";
template <>
inline constexpr std::string_view TOML_TYPE_TEXT<std::int64_t> = "a whole number";
template <>
inline constexpr std::string_view TOML_TYPE_TEXT<bool> = "true or false";
template <>
inline constexpr std::string_view TOML_TYPE_TEXT<toml::array> = "a list";
template <>
inline constexpr std::string_view TOML_TYPE_TEXT<toml::table> = "a table";
template <>
inline constexpr std::string_view TOML_TYPE_TEXT<toml::date> = "a date without quotes such as 2027-01-31";

/// The value as the type that it has to be of; null, and a mistake entered, when it is of another. Borrowed from the
/// entry's node.
template <typename T>
[[nodiscard]] const T* toml_expect(const toml_entry& entry, mistake_list& mistakes) {
  static_assert(!TOML_TYPE_TEXT<T>.empty());
  if (const auto* found = entry.node.as<T>()) {
    if constexpr (std::is_base_of_v<toml::node, T>) {
      return found;
    } else {
      return &found->get();
    }
  }
  toml_refuse(entry, TOML_TYPE_TEXT<T>, mistakes);
  return nullptr;
}

/// \return the number; nothing, and the mistake entered, when it is none from `lowest` to `highest`.
[[nodiscard]] std::optional<std::int64_t> toml_number(const toml_entry& entry, std::int64_t lowest,
                                                      std::int64_t highest, mistake_list& mistakes);

/// A path as a file names it: relative ones start at the folder of `file`.
std::string path_beside(const std::string& file, const std::string& path);

}  // namespace tarvex::server
