#pragma once

#include <jansson.h>

#include <cstddef>
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

/// Bytes of the longest message between the broker, the listener and a session, its length included.
constexpr std::size_t LINK_FRAME_MAX = std::size_t{64} * 1024;

/// A JSON object as a frame: its length in bytes (four bytes, the highest first), then its text.
/// \return empty when it is too long, or memory is out.
[[nodiscard]] std::string frame_encode(const json_t* object);

/// The object in a frame; null when the bytes are not exactly one frame with one JSON object in it.
[[nodiscard]] json_document frame_decode(std::string_view frame);

/// A member of an object; nothing when it is missing or of another type.
[[nodiscard]] std::optional<std::string> json_text_of(const json_t* object, const char* key);
[[nodiscard]] std::optional<json_int_t> json_integer_of(const json_t* object, const char* key);
[[nodiscard]] bool json_true_of(const json_t* object, const char* key);

/// Sets a member. Throws std::bad_alloc when memory is out or the text is not UTF-8.
void json_set_text(json_t* object, const char* key, std::string_view text);
void json_set_integer(json_t* object, const char* key, json_int_t number);

}  // namespace tarvex::server
