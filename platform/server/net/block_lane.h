#pragma once

#include "net/block_header.h"
#include "net/data_socket.h"
#include "net/wake.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

namespace tarvex::server {

/// One incoming connection in extended block mode, and how far its current block has come. I/O thread.
///
/// What comes goes into a small buffer, since headers have to be looked at; the bulk of a large payload goes where the
/// receiver wants it.
class block_lane {
 public:
  block_lane(event_loop& loop, std::unique_ptr<data_socket> connection)
      : socket(std::move(connection)), room_made(loop) {}

  std::unique_ptr<data_socket> socket;
  wake room_made;       ///< for bytes that wait here, or in the connection
  bool held = false;    ///< they wait
  bool called = false;  ///< and have been told to come, but did not have their turn yet
  bool ended = false;   ///< its last block is over

  /// It waits for room, and nothing has told it that there is some.
  bool stuck() const { return held && !called; }

  // The current block.
  block_header header;
  bool in_block = false;
  std::uint64_t skip = 0;      ///< bytes of its payload that are to be dropped first
  std::uint64_t position = 0;  ///< of the file, where the next byte of its payload goes
  std::uint64_t left = 0;      ///< bytes of its payload that go there

  // The buffer.
  bool empty() const { return begin_ == end_; }
  /// The bytes that were not looked at.
  std::span<const unsigned char> unread() const { return std::span(bytes_).subspan(begin_, end_ - begin_); }
  void looked_at(std::size_t bytes) { begin_ += bytes; }
  /// Reads on, behind what is there, which is less than a header.
  data_socket::moved read_now();
  /// Whether the next bytes are better read to where they belong.
  bool reads_directly() const { return empty() && skip == 0 && left >= BUFFER_BYTES; }
  /// Whether the connection may end here: between blocks, with nothing left.
  bool within_block() const { return in_block || !empty(); }

 private:
  static constexpr std::size_t BUFFER_BYTES = 16 * 1024;

  std::array<unsigned char, BUFFER_BYTES> bytes_;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
};

}  // namespace tarvex::server
