#pragma once

#include "net/outbound.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <span>

namespace tarvex::server {

/// Cuts what is to be sent into blocks, for connections that each ask for the next one when they can take it: so the
/// quick ones get more, and none waits for another. One thread.
class block_schedule {
 public:
  struct block {
    std::span<const unsigned char> bytes;
    std::uint64_t offset = 0;  ///< in the file
    std::uint64_t piece = 0;   ///< number of the piece that it is of
  };

  /// \param block_bytes  of a block at most
  explicit block_schedule(std::size_t block_bytes) : block_bytes_(block_bytes) {}

  void add(data_piece piece);
  /// Whether `next` has a block.
  bool waiting() const { return next_ < first_ + pieces_.size(); }
  /// The next block; its bytes stay until `let_go`.
  std::optional<block> next();
  /// A block's bytes are not needed any more. Pieces are done once that is so of all their blocks and of the pieces
  /// before.
  void let_go(const block& of);
  /// All pieces that are left are done as not sent.
  void give_up();

 private:
  struct entry {
    data_piece piece;
    std::size_t cut = 0;   // bytes that are in blocks
    std::size_t held = 0;  // bytes of blocks that were not let go
  };
  void skip_cut();
  void finish_first();

  const std::size_t block_bytes_;
  std::deque<entry> pieces_;
  std::uint64_t first_ = 0;  // number of the first piece
  std::uint64_t next_ = 0;   // number of the piece that is being cut
};

}  // namespace tarvex::server
