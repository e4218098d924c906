#include "net/window_memory.h"

#include <algorithm>
#include <utility>

namespace tarvex::server {

window_memory::window_memory(std::size_t limit_bytes, memory_account account, std::uint64_t begin)
    : chunks_max_(std::max<std::size_t>(limit_bytes / CHUNK_BYTES, 1)),
      account_(std::move(account)),
      first_(begin / CHUNK_BYTES) {}

window_memory::~window_memory() {
  if (account_.give_back && on_account_ > 0) account_.give_back(on_account_ * CHUNK_BYTES);
}

std::span<unsigned char> window_memory::at(std::uint64_t position) {
  const std::uint64_t number = position / CHUNK_BYTES;
  short_of_account_ = false;
  if (number - first_ >= chunks_max_) return {};
  const auto index = static_cast<std::size_t>(number - first_);
  if (chunks_.size() <= index) chunks_.resize(index + 1);
  chunk& holds = chunks_[index];
  if (!holds.bytes && !fetch(holds, index == 0)) return {};
  const auto within = static_cast<std::size_t>(position % CHUNK_BYTES);
  return {holds.bytes.get() + within, CHUNK_BYTES - within};
}

bool window_memory::fetch(chunk& into, bool first) {
  if (first && !own_in_use_) {
    if (!own_) own_ = std::make_unique_for_overwrite<unsigned char[]>(CHUNK_BYTES);
    into = {std::move(own_), false};
    own_in_use_ = true;
    return true;
  }
  if (!spare_.empty()) {
    into = {std::move(spare_.back()), true};
    spare_.pop_back();
    return true;
  }
  if (on_account_ + 1 >= chunks_max_) return false;
  auto bytes = std::make_unique_for_overwrite<unsigned char[]>(CHUNK_BYTES);
  spare_.reserve(SPARE_MAX);
  short_of_account_ = account_.take && !account_.take(CHUNK_BYTES);
  if (short_of_account_) return false;
  ++on_account_;
  into = {std::move(bytes), true};
  return true;
}

void window_memory::release(chunk left) {
  if (!left.bytes) return;
  if (!left.on_account) {
    own_ = std::move(left.bytes);
    own_in_use_ = false;
  } else if (spare_.size() < SPARE_MAX) {
    spare_.push_back(std::move(left.bytes));
  } else {
    --on_account_;
    if (account_.give_back) account_.give_back(CHUNK_BYTES);
  }
}

void window_memory::leave_before(std::uint64_t position) {
  for (const std::uint64_t first = position / CHUNK_BYTES; first_ < first; ++first_) {
    if (chunks_.empty()) {
      first_ = first;
      return;
    }
    chunk left = std::move(chunks_.front());
    chunks_.pop_front();
    release(std::move(left));
  }
}

std::size_t window_memory::bytes() const {
  return (on_account_ + (own_ || own_in_use_ ? 1 : 0)) * CHUNK_BYTES;
}

}  // namespace tarvex::server
