#include "net/byte_ring.h"

#include <algorithm>
#include <cstring>

namespace tarvex::server {

std::span<unsigned char> byte_ring::room() {
  if (size_ == capacity_) return {};
  if (!memory_) memory_ = std::make_unique_for_overwrite<unsigned char[]>(capacity_);
  if (size_ == 0) first_ = 0;  // the same few pages serve again and again
  const std::size_t next = (first_ + size_) % capacity_;
  const std::size_t edge = next < first_ ? first_ : capacity_;
  return {memory_.get() + next, edge - next};
}

std::size_t byte_ring::take(std::span<unsigned char> out) {
  std::size_t taken = 0;
  while (taken < out.size() && size_ > 0) {
    const std::size_t count = std::min({out.size() - taken, size_, capacity_ - first_});
    std::memcpy(out.data() + taken, memory_.get() + first_, count);
    taken += count;
    size_ -= count;
    first_ = (first_ + count) % capacity_;
  }
  return taken;
}

}  // namespace tarvex::server
