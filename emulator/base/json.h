#pragma once

#include "tarvex_common.hpp"

#include <jansson.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tarvex::emulator {

/// jansson's own function is static in its header, and would make a json_ptr another type in every source.
inline void json_release(json_t* value) noexcept {
  json_decref(value);
}

/// A JSON value that we own one reference of. Borrowed values stay plain json_t*.
using json_ptr = owner<json_t, json_release>;

/// Parses a whole text; null when it is not JSON (any value is taken, not only objects and arrays).
[[nodiscard]] json_ptr json_parse(std::string_view text);

/// Compact text in the form Box writes: '/' as "\/", other than ASCII as \uXXXX.
[[nodiscard]] std::string json_text(const json_t* value);

/// A string value of text that may come from anywhere: what is not UTF-8 is replaced by '?'. Never null.
[[nodiscard]] json_ptr json_string_of(std::string_view text);

/// Puts a value into an object and takes it over.
void json_put(json_t* object, const char* key, json_ptr value);
void json_put(json_t* object, const char* key, std::string_view text);
void json_put(json_t* object, const char* key, std::int64_t number);

/// Appends a value to an array and takes it over.
void json_add(json_t* array, json_ptr value);

/// A string member of an object; nothing when absent or of another type.
[[nodiscard]] std::optional<std::string> json_text_at(const json_t* object, const char* key);

/// An integer member (a number, or digits in a string, as Box takes both); nothing when absent or of another form.
[[nodiscard]] std::optional<std::int64_t> json_number_at(const json_t* object, const char* key);

}  // namespace tarvex::emulator
