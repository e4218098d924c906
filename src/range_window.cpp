#include "range_window.h"

#include "error.h"

#include <algorithm>
#include <cstring>

namespace tarvex::box {

namespace {

/// What has come is sent as soon as it is so much and the client waits, else when a block is full: so blocks grow with
/// the load, and a fast client is not served in crumbs.
constexpr size_t EARLY_BYTES = 65536;

tarvex_result_t tarvex_l_box_failure_share(tarvex_result_t result) {
  tarvex_object_t* const error = tarvex_error_peek(result);
  tarvex_object_reference(error);
  return tarvex_error_put(error);
}

}  // namespace

range_window::range_window(tarvex_gfs_operation_t op, download_monitor& monitor)
    : op_(op), any_order_(tarvex_gridftp_server_allow_unordered_writes(op)), monitor_(monitor) {
  tarvex_gridftp_server_get_block_size(op, &block_bytes_);
}

range_window::~range_window() {
  std::unique_lock lock(monitor_.mutex);
  monitor_.changed.wait(lock, [this] { return sending_ == 0; });
}

window_range_ptr range_window::open(tarvex_off_t begin, tarvex_off_t end) {
  auto range = std::make_shared<window_range>(window_range{.next = begin, .end = end, .handed = begin});
  const std::lock_guard lock(monitor_.mutex);
  ranges_.push_back(range);
  return range;
}

void range_window::take(const window_range_ptr& range, const unsigned char* bytes, size_t count) {
  while (count > 0) {
    if (!range->filling) range->filling = empty_block(*range);
    range_block& block = *range->filling;
    const size_t amount = std::min(count, block_bytes_ - block.filled);
    std::memcpy(block.bytes.get() + block.filled, bytes, amount);
    block.filled += amount;
    bytes += amount;
    count -= amount;
    range->next += static_cast<tarvex_off_t>(amount);
    if (block.filled == block_bytes_ || range->complete()) put(*range);
  }
  if (range->filling && range->filling->filled >= EARLY_BYTES) idle(range);
}

void range_window::idle(const window_range_ptr& range) {
  if (range->filling && client_waits_for(*range)) put(*range);
}

std::vector<std::pair<tarvex_off_t, tarvex_off_t>> range_window::not_handed() const {
  std::vector<std::pair<tarvex_off_t, tarvex_off_t>> gaps;
  for (const window_range_ptr& range : ranges_) {
    if (range->handed != range->end) gaps.emplace_back(range->handed, range->end);
  }
  return gaps;
}

/// Blocks are kept for the next range: memory that is given back and taken anew costs a page fault for each page.
range_block_ptr range_window::empty_block(const window_range& range) {
  range_block_ptr block;
  {
    const std::lock_guard lock(monitor_.mutex);
    if (spare_.empty()) {
      spare_.reserve(++blocks_);  // a completion must not run out of memory
    } else {
      block = std::move(spare_.back());
      spare_.pop_back();
    }
  }
  if (!block) {
    block = std::make_unique<range_block>();
    block->bytes = std::make_unique_for_overwrite<unsigned char[]>(block_bytes_);
    block->window = this;
  }
  block->filled = 0;
  block->offset = range.next;
  return block;
}

/// Whether nothing is on its way to the client, and bytes of this range are the next ones.
bool range_window::client_waits_for(const window_range& range) {
  const std::lock_guard lock(monitor_.mutex);
  if (sending_ > 0) return false;
  if (any_order_) return true;
  const auto due = std::find_if(ranges_.begin(), ranges_.end(), [](const auto& each) { return !each->whole; });
  return due != ranges_.end() && due->get() == &range;
}

void range_window::put(window_range& range) {
  {
    const std::lock_guard lock(monitor_.mutex);
    range.ready.push_back(std::move(range.filling));
    range.whole = range.complete();
  }
  hand_on();
}

void range_window::hand_on() {
  const std::lock_guard in_turn(turn_);
  while (range_block_ptr block = next_due()) send(std::move(block));
}

range_block_ptr range_window::next_due() {
  const std::lock_guard lock(monitor_.mutex);
  if (monitor_.stopped) return nullptr;
  for (const window_range_ptr& range : ranges_) {
    if (!range->ready.empty()) {
      range_block_ptr block = std::move(range->ready.front());
      range->ready.pop_front();
      block->range = range;
      range->handed += static_cast<tarvex_off_t>(block->filled);
      ++range->sending;
      ++sending_;
      return block;
    }
    if (!range->whole && !any_order_) return nullptr;
  }
  return nullptr;
}

/// Not under the monitor's mutex: the server may hold a lock of its own around its completions.
void range_window::send(range_block_ptr block) {
  range_block* const lent = block.release();
  const tarvex_result_t result =
      tarvex_gridftp_server_register_write(op_, lent->bytes.get(), lent->filled, lent->offset, 0, write_done, lent);
  if (result == TARVEX_SUCCESS) return;
  const std::lock_guard lock(monitor_.mutex);
  monitor_.stop(result);
  give_back(range_block_ptr(lent));
}

void range_window::write_done(tarvex_gfs_operation_t, tarvex_result_t result, unsigned char*, size_t, void* user_arg) {
  range_block_ptr block(static_cast<range_block*>(user_arg));
  range_window& window = *block->window;
  const std::lock_guard lock(window.monitor_.mutex);
  if (result != TARVEX_SUCCESS) window.monitor_.stop(tarvex_l_box_failure_share(result));
  window.give_back(std::move(block));
}

/// Takes a block back from the server, and closes the ranges that the client has.
void range_window::give_back(range_block_ptr block) {
  --block->range->sending;
  --sending_;
  block->range.reset();
  spare_.push_back(std::move(block));
  const size_t closed = std::erase_if(
      ranges_, [](const auto& range) { return range->whole && range->ready.empty() && range->sending == 0; });
  if (closed > 0 || sending_ == 0) monitor_.changed.notify_all();
}

}  // namespace tarvex::box
