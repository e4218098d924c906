#include "net/waiting_reads.h"

#include <utility>

namespace tarvex::server {

std::span<unsigned char> waiting_reads::room() const {
  const data_read& first = reads_.front();
  return {first.buffer + filled_, first.length - filled_};
}

void waiting_reads::finish(bool failed, bool eof) {
  const data_read read = std::move(reads_.front());
  reads_.pop_front();
  const std::size_t filled = std::exchange(filled_, 0);
  const std::size_t bytes = failed ? 0 : filled;
  const std::uint64_t offset = std::exchange(handed_out_, handed_out_ + bytes);
  read.done({failed, bytes, offset, eof});
}

}  // namespace tarvex::server
