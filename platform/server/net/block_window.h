#pragma once

#include "net/window_memory.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <span>
#include <utility>

namespace tarvex::server {

/// Puts blocks of a file that come in any order, on several connections at a time, into the file's order. One thread.
///
/// Bytes are put where they belong as they come, in a stretch of memory that begins at the first byte that was not
/// taken yet, and are taken from there once, in order. What lies beyond that stretch finds no room until it moves on:
/// memory stays bounded, and whoever has such bytes has to wait with them.
class block_window {
 public:
  /// Stretches of bytes that may lie apart from each other: blocks of a few bytes with gaps between them would else
  /// cost more to remember than to hold.
  static constexpr std::size_t APART_MAX = 4096;

  /// \param start        the first byte of the file that is wanted
  /// \param limit_bytes  of memory
  block_window(std::uint64_t start, std::size_t limit_bytes, memory_account account)
      : next_(start), memory_(limit_bytes, std::move(account), start) {}

  /// What a block is to the bytes that came, or were promised, before it.
  enum class fit {
    fresh,    ///< none of them: its bytes are promised now
    repeats,  ///< all of its bytes are among them
    clashes,  ///< some are, some are not
  };
  /// Enters a block whose bytes follow. offset + count is a file's size.
  [[nodiscard]] fit promise(std::uint64_t offset, std::uint64_t count);

  /// Where the next bytes of a promised block go, up to `length` of them. Empty: it has to wait.
  /// \param position  how far the block has come
  std::span<unsigned char> room(std::uint64_t position, std::uint64_t length);
  /// So many bytes were put where `room` said.
  void added(std::uint64_t position, std::size_t bytes);

  /// Moves the bytes whose turn it is to `out`. \return how many.
  std::size_t take(std::span<unsigned char> out);

  /// The first byte that was not taken.
  std::uint64_t next() const { return next_; }
  /// Bytes whose turn it is.
  std::size_t in_order() const;
  /// Behind all bytes that came.
  std::uint64_t end() const { return received_.empty() ? next_ : received_.rbegin()->second; }
  /// The first byte that is missing.
  std::uint64_t missing() const { return next_ + in_order(); }
  /// Memory that is held, used or not.
  std::size_t memory_bytes() const { return memory_.bytes(); }
  /// Whether the last `room` was empty for what other windows hold, so that it may be there later.
  bool short_of_account() const { return short_of_account_; }

 private:
  std::uint64_t known_within(std::uint64_t begin, std::uint64_t end) const;
  bool may_lie_apart(std::uint64_t position) const;

  using stretches = std::map<std::uint64_t, std::uint64_t>;  // begin, end; apart from each other
  std::uint64_t next_;
  window_memory memory_;
  stretches received_;  // of what was not taken; ends and begins do not touch
  stretches promised_;  // what is still to come of the blocks that have begun
  bool short_of_account_ = false;
};

}  // namespace tarvex::server
