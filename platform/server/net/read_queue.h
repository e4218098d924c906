#pragma once

#include "net/byte_ring.h"
#include "net/data_receiver.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <span>

namespace tarvex::server {

/// Reads that wait for bytes, and bytes that wait for reads: one of the two is empty, unless bytes are held back. One
/// thread at a time.
class read_queue {
 public:
  /// \param window_bytes  memory for what comes ahead of reads
  /// \param hold_bytes    so many of the newest bytes stay here until they are released
  read_queue(std::size_t window_bytes, std::size_t hold_bytes)
      : window_(window_bytes + hold_bytes), hold_bytes_(hold_bytes) {}

  void push(data_read read) { reads_.push_back(std::move(read)); }
  bool waiting() const { return !reads_.empty(); }

  /// Where the next bytes go: to the first read, unless older ones wait or all go past the held ones. Empty when there
  /// is no room.
  std::span<unsigned char> room();
  /// So many bytes were put where `room` said.
  void added(std::size_t bytes);
  /// Gives up the hold. \return whether bytes were held.
  bool release();

  // Of the first read, once there is one.

  /// Moves bytes that wait into its buffer.
  void fill();
  bool begun() const { return filled_ > 0; }
  bool full() const { return filled_ > 0 && filled_ == reads_.front().length; }
  /// It waits for the end of the data, but there are more.
  bool expects_no_more() const { return reads_.front().length == 0 && !window_.empty(); }
  /// It is over: takes it off the queue and calls its `done`. What a failed read has got is lost.
  void finish(bool failed, bool eof);

 private:
  bool received_directly() const;

  std::deque<data_read> reads_;
  byte_ring window_;
  std::size_t hold_bytes_;
  std::size_t filled_ = 0;  ///< bytes in the first read's buffer
  std::uint64_t handed_out_ = 0;
};

}  // namespace tarvex::server
