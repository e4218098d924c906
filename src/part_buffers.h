/// \file
/// The memory of the parts of one upload.
#pragma once

#include "tarvex_common.hpp"

#include <cstdint>
#include <vector>

namespace tarvex::box {

/// Room for one part.
struct part_buffer {
  c_string bytes = {};
  uint64_t digested = 0;  ///< what the digests must have come to before the room is used again
};

/// Rooms of one size, which are used again and again: fresh memory costs the processor about as much as a digest. Not
/// guarded: the callers' lock is.
class part_buffers {
 public:
  /// \param memory  bytes that all rooms take together; there is one room at least
  /// \param most    rooms that are of use
  part_buffers(uint64_t size, uint64_t memory, int most);

  /// Whether there is room for one more part.
  [[nodiscard]] bool free() const { return !free_.empty() || left_ > 0; }
  /// Takes such a room; its `bytes` are null when memory is out.
  [[nodiscard]] part_buffer take();
  /// Takes a room back.
  void give(part_buffer buffer) noexcept;

 private:
  uint64_t size_;
  uint64_t left_;  ///< rooms that have not been made yet
  std::vector<part_buffer> free_;
};

}  // namespace tarvex::box
