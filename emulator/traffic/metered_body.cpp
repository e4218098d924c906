#include "traffic/metered_body.h"

#include <algorithm>
#include <chrono>
#include <thread>

namespace tarvex::emulator {

std::size_t metered_body::read(std::span<char> out) {
  const std::size_t got = from_.read(fault_ == nullptr ? out : hold_back(out));
  bytes_ += got;
  ended_ = got == 0;
  return got;
}

std::span<char> metered_body::hold_back(std::span<char> out) const {
  if (fault_->read_delay_ms > 0) std::this_thread::sleep_for(std::chrono::milliseconds(fault_->read_delay_ms));
  if (!fault_->cut_request_after) return out;
  // Up to the cut the bytes are handed on, so that a handler stores what it would have stored.
  const std::int64_t left = *fault_->cut_request_after - static_cast<std::int64_t>(bytes_);
  if (left <= 0) throw connection_lost();
  return out.first(std::min(out.size(), static_cast<std::size_t>(left)));
}

}  // namespace tarvex::emulator
