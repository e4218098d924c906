/// \file
/// Settings whose values are a few words, each of which means one value of an enumeration.
#pragma once

#include <algorithm>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace tarvex::server {

template <typename T>
struct choice {
  std::string_view name;
  T value;
};

/// What a word means; nothing when it is none of them.
template <typename T>
[[nodiscard]] std::optional<T> choice_value(std::span<const choice<T>> choices, std::string_view name) {
  const auto found =
      std::find_if(choices.begin(), choices.end(), [&](const auto& known) { return known.name == name; });
  return found == choices.end() ? std::nullopt : std::optional(found->value);
}

/// The word for a value, which has to have one.
template <typename T>
[[nodiscard]] std::string_view choice_name(std::span<const choice<T>> choices, T value) {
  return std::find_if(choices.begin(), choices.end(), [&](const auto& known) { return known.value == value; })->name;
}

/// All words, for people: `"a", "b" or "c"`.
template <typename T>
[[nodiscard]] std::string choice_names(std::span<const choice<T>> choices) {
  std::string text;
  for (const choice<T>& known : choices) {
    const bool last = &known == &choices.back();
    text.append(text.empty() ? "\"" : last ? " or \"" : ", \"").append(known.name).append("\"");
  }
  return text;
}

}  // namespace tarvex::server
