/// \file
/// The ranges of a file that are fetched side by side, on their way to the client.
#pragma once

#include "download_monitor.h"
#include "tarvex_gridftp_server.h"

#include <deque>
#include <memory>
#include <vector>

namespace tarvex::box {

class range_window;
struct window_range;

/// Bytes that are sent in one go.
struct range_block {
  std::unique_ptr<unsigned char[]> bytes;
  size_t filled = 0;
  tarvex_off_t offset = 0;  ///< of the file
  range_window* window = nullptr;
  std::shared_ptr<window_range> range;  ///< while the server has it; before, the range owns it
};

using range_block_ptr = std::unique_ptr<range_block>;

/// One range. Its fetcher's alone, but for what is said to be guarded by the monitor.
struct window_range {
  tarvex_off_t next = 0;  ///< of the file, the first byte that has not come
  tarvex_off_t end = 0;
  range_block_ptr filling = nullptr;

  std::deque<range_block_ptr> ready = {};  ///< guarded: come, and not handed on
  tarvex_off_t handed = 0;                 ///< guarded: of the file, the first byte that was not handed on
  size_t sending = 0;                      ///< guarded: blocks that the server has
  bool whole = false;                      ///< guarded: all has come

  bool complete() const { return next == end; }
};

using window_range_ptr = std::shared_ptr<window_range>;

/// Hands the bytes of ranges on to the client: of the first range as they come, of those after it in their turn; or of
/// all as they come, where the client takes any order. Bytes are copied once, from the REST client's pieces into blocks
/// that are lent to the server.
///
/// No fetcher ever waits here. What bounds the memory is that a range is opened only while few are (`open_ranges`), and
/// one is open until the client has taken all of it: a client that is slow makes none of Box's connections wait.
class range_window {
 public:
  range_window(tarvex_gfs_operation_t op, download_monitor& monitor);
  range_window(const range_window&) = delete;
  range_window& operator=(const range_window&) = delete;
  /// No fetcher may be at work; waits until the server has given all blocks back.
  ~range_window();

  /// Begins a range, which lies behind those before.
  window_range_ptr open(tarvex_off_t begin, tarvex_off_t end);
  /// Takes the next bytes of a range, no more than it has left. A failure to hand on stops the download.
  void take(const window_range_ptr& range, const unsigned char* bytes, size_t count);
  /// Called now and then while nothing comes: what has come does not wait for more.
  void idle(const window_range_ptr& range);

  // The monitor's mutex is held.

  /// Ranges of which the client does not have everything.
  size_t open_ranges() const { return ranges_.size(); }
  /// What of the open ranges was not handed on, in order, with first bytes and ends.
  std::vector<std::pair<tarvex_off_t, tarvex_off_t>> not_handed() const;

 private:
  static void write_done(tarvex_gfs_operation_t op, tarvex_result_t result, unsigned char* buffer, size_t count,
                         void* user_arg);
  range_block_ptr empty_block(const window_range& range);
  bool client_waits_for(const window_range& range);
  void put(window_range& range);
  void hand_on();
  range_block_ptr next_due();
  void send(range_block_ptr block);
  void give_back(range_block_ptr block);

  const tarvex_gfs_operation_t op_;
  const bool any_order_;
  download_monitor& monitor_;
  size_t block_bytes_ = 0;
  std::mutex turn_;  ///< held while blocks are handed over, so that they go in order; taken before the monitor's

  // Guarded by the monitor.
  std::deque<window_range_ptr> ranges_;
  std::vector<range_block_ptr> spare_;
  size_t blocks_ = 0;   ///< there are, spare ones included
  size_t sending_ = 0;  ///< blocks that the server has
};

}  // namespace tarvex::box
