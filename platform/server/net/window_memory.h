#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <span>
#include <vector>

namespace tarvex::server {

/// Asks for memory of a bound that several windows share, and gives it back. Any of the two may be empty: no bound.
struct memory_account {
  std::function<bool(std::size_t bytes)> take;
  std::function<void(std::size_t bytes)> give_back;
};

/// The memory of a window that slides over a file: chunks that are there from the first byte put into them until the
/// window has left them. One thread.
///
/// The chunk at the window's beginning is not asked for: whatever other windows hold, this one can go on, if only
/// slowly. Were it not so, windows that wait for each other's memory would wait for ever.
class window_memory {
 public:
  static constexpr std::size_t CHUNK_BYTES = 256 * 1024;

  /// \param limit_bytes  of all chunks; at least one is kept
  /// \param begin        the window's first byte
  window_memory(std::size_t limit_bytes, memory_account account, std::uint64_t begin);
  ~window_memory();
  window_memory(const window_memory&) = delete;
  window_memory& operator=(const window_memory&) = delete;

  /// Memory for the byte at `position` and those after it in its chunk. Empty: there is none to be had for now.
  /// Positions before the window are none of the caller's business.
  std::span<unsigned char> at(std::uint64_t position);
  /// The window begins at `position` from now on.
  void leave_before(std::uint64_t position);
  std::size_t bytes() const;
  /// Whether the last `at` failed because of what other windows hold.
  bool short_of_account() const { return short_of_account_; }

 private:
  /// Chunks that are kept for the next ones: to have one mapped anew for each takes longer than to fill it.
  static constexpr std::size_t SPARE_MAX = 16;
  using chunk_bytes = std::unique_ptr<unsigned char[]>;
  struct chunk {
    chunk_bytes bytes;
    bool on_account = false;
  };

  bool fetch(chunk& into, bool first);
  void release(chunk left);

  const std::size_t chunks_max_;
  const memory_account account_;
  std::uint64_t first_;       // number of the first chunk
  std::deque<chunk> chunks_;  // from the first on, those without memory included
  chunk_bytes own_;           // for the first chunk, while that has other memory or none
  bool own_in_use_ = false;
  std::vector<chunk_bytes> spare_;  // on account
  std::size_t on_account_ = 0;      // chunks, the spare ones included
  bool short_of_account_ = false;
};

}  // namespace tarvex::server
