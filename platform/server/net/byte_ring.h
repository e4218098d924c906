#pragma once

#include <cstddef>
#include <memory>
#include <span>

namespace tarvex::server {

/// Bytes on their way, in order, in bounded memory that is taken when the first byte needs room. One thread at a time.
class byte_ring {
 public:
  explicit byte_ring(std::size_t capacity) : capacity_(capacity) {}

  bool empty() const { return size_ == 0; }
  std::size_t size() const { return size_; }
  /// Where the next bytes go: the free memory up to its edge. Empty when the ring is full.
  std::span<unsigned char> room();
  /// So many bytes were put where `room` said.
  void added(std::size_t bytes) { size_ += bytes; }
  /// Moves the oldest bytes to `out`. \return how many.
  std::size_t take(std::span<unsigned char> out);

 private:
  const std::size_t capacity_;
  std::unique_ptr<unsigned char[]> memory_;
  std::size_t first_ = 0;  ///< the oldest byte
  std::size_t size_ = 0;
};

}  // namespace tarvex::server
