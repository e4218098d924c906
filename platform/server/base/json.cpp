#include "base/json.h"

#include "tarvex_common.hpp"

#include <new>

namespace tarvex::server {

namespace {

void json_need(bool done) {
  if (!done) throw std::bad_alloc();
}

}  // namespace

json_document json_object_parse(std::string_view text) {
  json_document document(json_loadb(text.data(), text.size(), JSON_REJECT_DUPLICATES, nullptr));
  return json_is_object(document.get()) ? std::move(document) : nullptr;
}

std::optional<std::string> json_text_of(const json_t* object, const char* key) {
  const json_t* const member = json_object_get(object, key);
  if (!json_is_string(member)) return std::nullopt;
  return std::string(json_string_value(member), json_string_length(member));
}

std::optional<json_int_t> json_integer_of(const json_t* object, const char* key) {
  const json_t* const member = json_object_get(object, key);
  if (!json_is_integer(member)) return std::nullopt;
  return json_integer_value(member);
}

json_document json_made(json_t* made) {
  json_need(made != nullptr);
  return json_document(made);
}

void json_set_text(json_t* object, const char* key, std::string_view text) {
  json_need(json_object_set_new(object, key, json_stringn(text.data(), text.size())) == 0);
}

void json_set_integer(json_t* object, const char* key, json_int_t number) {
  json_need(json_object_set_new(object, key, json_integer(number)) == 0);
}

void json_set_true(json_t* object, const char* key, bool value) {
  json_need(json_object_set_new(object, key, json_boolean(value)) == 0);
}

void json_set_null(json_t* object, const char* key) {
  json_need(json_object_set_new(object, key, json_null()) == 0);
}

void json_set_document(json_t* object, const char* key, json_document value) {
  json_need(json_object_set_new(object, key, value.release()) == 0);
}

void json_add_text(json_t* array, std::string_view text) {
  json_need(json_array_append_new(array, json_stringn(text.data(), text.size())) == 0);
}

void json_add_document(json_t* array, json_document value) {
  json_need(json_array_append_new(array, value.release()) == 0);
}

std::string json_text(const json_t* document) {
  const c_string text(json_dumps(document, JSON_COMPACT));
  json_need(text != nullptr);
  return text.get();
}

}  // namespace tarvex::server
