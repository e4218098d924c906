#pragma once

#include "http/transport.h"

#include <algorithm>
#include <cstring>
#include <span>
#include <string_view>
#include <vector>

namespace tarvex::emulator {

/// What was read from the connection and not used yet.
class input_buffer {
 public:
  explicit input_buffer(transport& from) : from_(from), bytes_(SIZE) {}

  [[nodiscard]] std::string_view pending() const { return {bytes_.data() + begin_, end_ - begin_}; }
  void consume(std::size_t count) { begin_ += count; }

  /// Reads more behind what is pending; false at the end of the connection or when the buffer is full.
  bool fill() {
    if (begin_ > 0) {
      std::memmove(bytes_.data(), bytes_.data() + begin_, end_ - begin_);
      end_ -= begin_;
      begin_ = 0;
    }
    if (end_ == bytes_.size()) return false;
    const std::size_t got = from_.read({bytes_.data() + end_, bytes_.size() - end_});
    end_ += got;
    return got > 0;
  }

  /// Takes what is pending, or else reads straight into `out`.
  std::size_t take(std::span<char> out) {
    if (begin_ == end_) return from_.read(out);
    const std::size_t count = std::min(out.size(), end_ - begin_);
    std::memcpy(out.data(), bytes_.data() + begin_, count);
    begin_ += count;
    return count;
  }

 private:
  static constexpr std::size_t SIZE = 256UL * 1024;

  transport& from_;
  std::vector<char> bytes_;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
};

}  // namespace tarvex::emulator
