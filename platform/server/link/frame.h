#pragma once

#include "base/json.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace tarvex::server {

/// Bytes of the longest message between the broker, the listener and a session, its length included.
constexpr std::size_t LINK_FRAME_MAX = std::size_t{64} * 1024;

/// A JSON object as a frame: its length in bytes (four bytes, the highest first), then its text.
/// \return empty when it is too long, or memory is out.
[[nodiscard]] std::string frame_encode(const json_t* object);

/// The object in a frame; null when the bytes are not exactly one frame with one JSON object in it.
[[nodiscard]] json_document frame_decode(std::string_view frame);

}  // namespace tarvex::server
