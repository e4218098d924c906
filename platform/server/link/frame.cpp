#include "link/frame.h"

#include <cstdint>

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
  return json_object_parse(frame.substr(LENGTH_BYTES));
}

}  // namespace tarvex::server
