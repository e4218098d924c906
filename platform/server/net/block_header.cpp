#include "net/block_header.h"

namespace tarvex::server {

namespace {

constexpr std::size_t COUNT_AT = 1;
constexpr std::size_t OFFSET_AT = 9;
constexpr unsigned BYTE_BITS = 8;

void put_number(unsigned char* out, std::uint64_t number) {
  for (std::size_t i = sizeof number; i-- > 0; number >>= BYTE_BITS) out[i] = static_cast<unsigned char>(number);
}

std::uint64_t get_number(const unsigned char* in) {
  std::uint64_t number = 0;
  for (std::size_t i = 0; i < sizeof number; ++i) number = number << BYTE_BITS | in[i];
  return number;
}

}  // namespace

std::array<unsigned char, block_header::BYTES> block_header_encode(const block_header& header) {
  std::array<unsigned char, block_header::BYTES> bytes{header.bits};
  put_number(bytes.data() + COUNT_AT, header.count);
  put_number(bytes.data() + OFFSET_AT, header.offset);
  return bytes;
}

block_header block_header_decode(std::span<const unsigned char, block_header::BYTES> bytes) {
  return {bytes[0], get_number(bytes.data() + COUNT_AT), get_number(bytes.data() + OFFSET_AT)};
}

std::string_view block_header_mistake(const block_header& header) {
  if (header.has(block_header::RESTART_MARKER)) return "A block is a restart marker, which has no place here.";
  if (header.has(block_header::SUSPECT)) return "The sender marked a block as damaged.";
  if (header.has(block_header::END_OF_FILE))
    return header.count == 0 ? "" : "The block that ends the file has payload, though its offset is a count.";
  if (header.count > block_header::LARGEST_FILE || header.offset > block_header::LARGEST_FILE - header.count)
    return "A block reaches beyond the largest size that a file can have.";
  return "";
}

}  // namespace tarvex::server
