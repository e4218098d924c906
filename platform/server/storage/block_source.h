#pragma once

#include "net/inbound.h"

#include <array>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <span>

namespace tarvex::server {

/// Received data, block by block, for one thread that may wait for them: while it is busy with one block others fill.
class block_source {
 public:
  explicit block_source(inbound& receiver);
  /// Waits until the receiver has let go of every block: it has ended by then, or is over.
  ~block_source();
  block_source(const block_source&) = delete;
  block_source& operator=(const block_source&) = delete;

  /// Waits for the next block, which stays till the next call. `eof` of the outcome: it is the last.
  read_outcome next(std::span<const std::byte>& bytes);

 private:
  static constexpr std::size_t BLOCK_BYTES = 1 << 20;
  static constexpr std::size_t BLOCKS = 3;
  using block = std::unique_ptr<unsigned char[]>;

  void ask(block& into);
  void done(const read_outcome& outcome, bool taken);

  inbound& receiver_;
  std::array<block, BLOCKS> blocks_;
  std::size_t taken_ = 0;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<read_outcome> outcomes_;  // guarded by mutex_
  std::size_t asked_ = 0;              // guarded by mutex_: reads that the receiver has
};

}  // namespace tarvex::server
