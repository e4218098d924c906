#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <string_view>

namespace tarvex::server {

/// The header of a block in extended block mode (GFD-R.020 section 3.3, GridFTP's MODE E). In network byte order:
///
///     byte  0       1 ... 8      9 ... 16
///           bits    count        offset
struct block_header {
  static constexpr std::size_t BYTES = 17;
  static constexpr std::uint64_t LARGEST_FILE = std::numeric_limits<std::int64_t>::max();

  enum bit : std::uint8_t {
    END_OF_RECORD = 128,  ///< without meaning in files
    END_OF_FILE = 64,     ///< no payload; the offset says how many connections end with END_OF_DATA
    SUSPECT = 32,         ///< the sender doubts its payload
    RESTART_MARKER = 16,  ///< the payload is none of the file
    END_OF_DATA = 8,      ///< the last block of its connection
    SENDER_CLOSES = 4,    ///< the sender closes the connection behind it
  };

  std::uint8_t bits = 0;
  std::uint64_t count = 0;   ///< bytes of payload behind the header
  std::uint64_t offset = 0;  ///< in the file, of the first of them

  bool has(bit one) const { return (bits & one) != 0; }
};

std::array<unsigned char, block_header::BYTES> block_header_encode(const block_header& header);
block_header block_header_decode(std::span<const unsigned char, block_header::BYTES> bytes);

/// Why no peer may send such a header, as a sentence; empty: it may. Afterwards offset + count is a file's size.
std::string_view block_header_mistake(const block_header& header);

}  // namespace tarvex::server
