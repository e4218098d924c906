#pragma once

#include "net/inbound.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <span>

namespace tarvex::server {

/// Reads that wait for bytes, the first of which is being filled. One thread at a time.
class waiting_reads {
 public:
  std::deque<data_read>& reads() { return reads_; }
  bool any() const { return !reads_.empty(); }

  // Of the first read, once there is one.

  /// What is left of its buffer.
  std::span<unsigned char> room() const;
  /// So many bytes were put there.
  void added(std::size_t bytes) { filled_ += bytes; }
  bool begun() const { return filled_ > 0; }
  bool full() const { return filled_ > 0 && filled_ == reads_.front().length; }
  /// It waits for the end of the data.
  bool awaits_end() const { return reads_.front().length == 0; }
  /// It is over: takes it off and calls its `done`. What a failed read has got is lost.
  void finish(bool failed, bool eof);

 private:
  std::deque<data_read> reads_;
  std::size_t filled_ = 0;  // bytes in the first read's buffer
  std::uint64_t handed_out_ = 0;
};

}  // namespace tarvex::server
