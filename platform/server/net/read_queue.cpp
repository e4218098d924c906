#include "net/read_queue.h"

#include <algorithm>
#include <utility>

namespace tarvex::server {

bool read_queue::received_directly() const {
  return hold_bytes_ == 0 && window_.empty() && waiting() && filled_ < reads_.front().length;
}

std::span<unsigned char> read_queue::room() {
  if (!received_directly()) return window_.room();
  return {reads_.front().buffer + filled_, reads_.front().length - filled_};
}

void read_queue::added(std::size_t bytes) {
  if (received_directly())
    filled_ += bytes;
  else
    window_.added(bytes);
}

bool read_queue::release() {
  return std::exchange(hold_bytes_, 0) > 0 && !window_.empty();
}

void read_queue::fill() {
  const data_read& first = reads_.front();
  const std::size_t free_bytes = window_.size() - std::min(window_.size(), hold_bytes_);
  filled_ += window_.take({first.buffer + filled_, std::min(first.length - filled_, free_bytes)});
}

void read_queue::finish(bool failed, bool eof) {
  const data_read read = std::move(reads_.front());
  reads_.pop_front();
  const std::size_t filled = std::exchange(filled_, 0);
  const std::size_t bytes = failed ? 0 : filled;
  const std::uint64_t offset = std::exchange(handed_out_, handed_out_ + bytes);
  read.done({failed, bytes, offset, eof});
}

}  // namespace tarvex::server
