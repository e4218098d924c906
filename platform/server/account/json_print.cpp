#include "account/json_print.h"

#include "tarvex_common.hpp"

#include <cstdio>
#include <new>

namespace tarvex::server {

namespace {

constexpr std::size_t INDENT = 2;

void need(bool done) {
  if (!done) throw std::bad_alloc();
}

}  // namespace

json_document json_made(json_t* made) {
  need(made != nullptr);
  return json_document(made);
}

void json_set_null(json_t* object, const char* key) {
  need(json_object_set_new(object, key, json_null()) == 0);
}

void json_set_true(json_t* object, const char* key, bool value) {
  need(json_object_set_new(object, key, json_boolean(value)) == 0);
}

void json_set_document(json_t* object, const char* key, json_document value) {
  need(json_object_set_new(object, key, value.release()) == 0);
}

void json_add_text(json_t* array, std::string_view text) {
  need(json_array_append_new(array, json_stringn(text.data(), text.size())) == 0);
}

void json_add_document(json_t* array, json_document value) {
  need(json_array_append_new(array, value.release()) == 0);
}

void json_print(const json_t* document) {
  const c_string text(json_dumps(document, JSON_INDENT(INDENT)));
  need(text != nullptr);
  std::puts(text.get());
}

}  // namespace tarvex::server
