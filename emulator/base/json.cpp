#include "base/json.h"

#include "base/text.h"

namespace tarvex::emulator {

json_ptr json_parse(std::string_view text) {
  json_error_t error;
  return json_ptr(json_loadb(text.data(), text.size(), JSON_DECODE_ANY | JSON_ALLOW_NUL, &error));
}

std::string json_text(const json_t* value) {
  std::string text;
  const auto append = [](const char* buffer, std::size_t size, void* out) {
    static_cast<std::string*>(out)->append(buffer, size);
    return 0;
  };
  // Sizes beyond some terabytes go out as doubles, as Box writes them; 16 digits keep them exact up to 2^53.
  json_dump_callback(value, append, &text,
                     JSON_COMPACT | JSON_ENCODE_ANY | JSON_ENSURE_ASCII | JSON_ESCAPE_SLASH | JSON_REAL_PRECISION(16));
  return text;
}

json_ptr json_string_of(std::string_view text) {
  // jansson gives no value for what is not UTF-8, and a header or a query of a request may hold anything.
  if (json_t* value = json_stringn(text.data(), text.size())) return json_ptr(value);
  std::string plain(text);
  for (char& c : plain) {
    if (static_cast<unsigned char>(c) >= 0x80) c = '?';
  }
  return json_ptr(json_stringn(plain.data(), plain.size()));
}

void json_put(json_t* object, const char* key, json_ptr value) {
  json_object_set_new(object, key, value.release());
}

void json_put(json_t* object, const char* key, std::string_view text) {
  json_put(object, key, json_string_of(text));
}

void json_put(json_t* object, const char* key, std::int64_t number) {
  json_object_set_new(object, key, json_integer(number));
}

void json_add(json_t* array, json_ptr value) {
  json_array_append_new(array, value.release());
}

std::optional<std::string> json_text_at(const json_t* object, const char* key) {
  const json_t* value = json_object_get(object, key);
  if (!json_is_string(value)) return std::nullopt;
  return std::string(json_string_value(value), json_string_length(value));
}

std::optional<std::int64_t> json_number_at(const json_t* object, const char* key) {
  const json_t* value = json_object_get(object, key);
  if (json_is_integer(value)) return json_integer_value(value);
  if (json_is_string(value)) return number_of(json_string_value(value));
  return std::nullopt;
}

}  // namespace tarvex::emulator
