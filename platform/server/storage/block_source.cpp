#include "storage/block_source.h"

namespace tarvex::server {

block_source::block_source(inbound& receiver) : receiver_(receiver) {
  for (block& into : blocks_) ask(into);
}

block_source::~block_source() {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [this] { return asked_ == 0; });
}

read_outcome block_source::next(std::span<const std::byte>& bytes) {
  if (taken_ > 0) ask(blocks_[(taken_ - 1) % BLOCKS]);
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [this] { return !outcomes_.empty() || asked_ == 0; });
  if (outcomes_.empty()) return {.failed = true, .eof = true};
  const read_outcome outcome = outcomes_.front();
  outcomes_.pop_front();
  bytes = std::as_bytes(std::span(blocks_[taken_++ % BLOCKS].get(), outcome.bytes));
  return outcome;
}

void block_source::ask(block& into) {
  if (!into) into = std::make_unique_for_overwrite<unsigned char[]>(BLOCK_BYTES);
  {
    const std::lock_guard lock(mutex_);
    ++asked_;
  }
  if (!receiver_.read({into.get(), BLOCK_BYTES, [this](const read_outcome& outcome) { done(outcome, true); }}))
    done({}, false);
}

void block_source::done(const read_outcome& outcome, bool taken) {
  const std::lock_guard lock(mutex_);
  --asked_;
  if (taken) outcomes_.push_back(outcome);
  changed_.notify_all();  // under the lock: the destructor may be what waits
}

}  // namespace tarvex::server
