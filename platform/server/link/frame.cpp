#include "link/frame.h"

#include <array>
#include <cstdint>
#include <new>

namespace tarvex::server {

namespace {

constexpr std::size_t LENGTH_BYTES = 4;

}  // namespace

std::string frame_encode(const json_t* object) {
  const std::size_t length = json_dumpb(object, nullptr, 0, JSON_COMPACT);
  if (length == 0 || length > LINK_FRAME_MAX - LENGTH_BYTES) return {};
  std::string frame(LENGTH_BYTES + length, '\0');
  for (std::size_t i = 0; i < LENGTH_BYTES; ++i)
    frame[i] = static_cast<char>(length >> (8 * (LENGTH_BYTES - 1 - i)) & 0xffU);
  if (json_dumpb(object, frame.data() + LENGTH_BYTES, length, JSON_COMPACT) != length) return {};
  return frame;
}

json_document frame_decode(std::string_view frame) {
  if (frame.size() <= LENGTH_BYTES || frame.size() > LINK_FRAME_MAX) return nullptr;
  std::size_t length = 0;
  for (std::size_t i = 0; i < LENGTH_BYTES; ++i) length = length << 8U | static_cast<std::uint8_t>(frame[i]);
  if (length != frame.size() - LENGTH_BYTES) return nullptr;
  json_document document(json_loadb(frame.data() + LENGTH_BYTES, length, JSON_REJECT_DUPLICATES, nullptr));
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

bool json_true_of(const json_t* object, const char* key) {
  return json_is_true(json_object_get(object, key));
}

void json_set_text(json_t* object, const char* key, std::string_view text) {
  if (json_object_set_new(object, key, json_stringn(text.data(), text.size())) != 0) throw std::bad_alloc();
}

void json_set_integer(json_t* object, const char* key, json_int_t number) {
  if (json_object_set_new(object, key, json_integer(number)) != 0) throw std::bad_alloc();
}

}  // namespace tarvex::server
