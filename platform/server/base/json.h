#pragma once

#include <jansson.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace tarvex::server {

/// json_decref is static in every source that sees it; a type that is made with it would be, too.
struct json_releaser {
  void operator()(json_t* document) const noexcept { json_decref(document); }
};
using json_document = std::unique_ptr<json_t, json_releaser>;

/// Reads an object; null when the text is none, or names a member twice.
[[nodiscard]] json_document json_object_parse(std::string_view text);

/// A member of an object, which may be null; nothing when it is missing or of another type.
[[nodiscard]] std::optional<std::string> json_text_of(const json_t* object, const char* key);
[[nodiscard]] std::optional<json_int_t> json_integer_of(const json_t* object, const char* key);

// What follows throws std::bad_alloc when memory is out, or a text is not UTF-8.

/// Owns what jansson has made.
[[nodiscard]] json_document json_made(json_t* made);
void json_set_text(json_t* object, const char* key, std::string_view text);
void json_set_integer(json_t* object, const char* key, json_int_t number);
void json_set_true(json_t* object, const char* key, bool value);
void json_set_null(json_t* object, const char* key);
void json_set_document(json_t* object, const char* key, json_document value);
void json_add_text(json_t* array, std::string_view text);
void json_add_document(json_t* array, json_document value);
/// On one line.
[[nodiscard]] std::string json_text(const json_t* document);

}  // namespace tarvex::server
