#include "part_buffers.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

namespace tarvex::box {

part_buffers::part_buffers(uint64_t size, uint64_t memory, int most)
    : size_(size), left_(std::clamp<uint64_t>(memory / size, 1, static_cast<uint64_t>(most))) {
  free_.reserve(left_);  // so that rooms can be given back when memory is out
}

part_buffer part_buffers::take() {
  if (free_.empty()) {
    part_buffer made = {.bytes = c_string(static_cast<char*>(std::malloc(size_)))};
    if (made.bytes) --left_;
    return made;
  }
  part_buffer taken = std::move(free_.back());
  free_.pop_back();
  return taken;
}

void part_buffers::give(part_buffer buffer) noexcept {
  free_.push_back(std::move(buffer));
}

}  // namespace tarvex::box
