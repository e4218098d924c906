#include "net/block_window.h"

#include <algorithm>
#include <cstring>

namespace tarvex::server {

namespace {

using stretches = std::map<std::uint64_t, std::uint64_t>;

/// Bytes that [begin, end) has in common with the stretches.
std::uint64_t common_bytes(const stretches& in, std::uint64_t begin, std::uint64_t end) {
  std::uint64_t bytes = 0;
  auto at = in.upper_bound(begin);
  if (at != in.begin()) --at;
  for (; at != in.end() && at->first < end; ++at) {
    const std::uint64_t from = std::max(begin, at->first);
    const std::uint64_t to = std::min(end, at->second);
    if (from < to) bytes += to - from;
  }
  return bytes;
}

/// Adds bytes that are in none, and joins what touches.
void join(stretches& to, std::uint64_t begin, std::uint64_t end) {
  auto after = to.lower_bound(begin);
  if (after != to.end() && after->first == end) {
    end = after->second;
    after = to.erase(after);
  }
  if (after != to.begin() && std::prev(after)->second == begin) {
    std::prev(after)->second = end;
  } else {
    to.emplace_hint(after, begin, end);
  }
}

}  // namespace

std::uint64_t block_window::known_within(std::uint64_t begin, std::uint64_t end) const {
  const std::uint64_t taken = begin < next_ ? std::min(end, next_) - begin : 0;
  return taken + common_bytes(received_, begin, end) + common_bytes(promised_, begin, end);
}

block_window::fit block_window::promise(std::uint64_t offset, std::uint64_t count) {
  if (count == 0) return fit::repeats;
  const std::uint64_t known = known_within(offset, offset + count);
  if (known == count) return fit::repeats;
  if (known > 0) return fit::clashes;
  promised_.emplace(offset, offset + count);
  return fit::fresh;
}

/// Whether bytes at `position` can be remembered.
bool block_window::may_lie_apart(std::uint64_t position) const {
  if (received_.size() < APART_MAX || position == missing()) return true;
  const auto after = received_.upper_bound(position);
  return after != received_.begin() && std::prev(after)->second == position;
}

std::span<unsigned char> block_window::room(std::uint64_t position, std::uint64_t length) {
  short_of_account_ = false;
  if (!may_lie_apart(position)) return {};
  const std::span<unsigned char> free = memory_.at(position);
  short_of_account_ = memory_.short_of_account();
  return free.first(static_cast<std::size_t>(std::min<std::uint64_t>(length, free.size())));
}

void block_window::added(std::uint64_t position, std::size_t bytes) {
  const auto from = promised_.find(position);
  const std::uint64_t end = from->second;
  const std::uint64_t reached = position + bytes;
  promised_.erase(from);
  if (reached < end) promised_.emplace(reached, end);
  join(received_, position, reached);
}

std::size_t block_window::in_order() const {
  if (received_.empty() || received_.begin()->first != next_) return 0;
  return static_cast<std::size_t>(received_.begin()->second - next_);
}

std::size_t block_window::take(std::span<unsigned char> out) {
  const std::size_t wanted = std::min(out.size(), in_order());
  for (std::size_t taken = 0; taken < wanted;) {
    const std::span<unsigned char> held = memory_.at(next_);
    const std::size_t count = std::min(held.size(), wanted - taken);
    std::memcpy(out.data() + taken, held.data(), count);
    taken += count;
    next_ += count;
    memory_.leave_before(next_);
  }
  if (wanted > 0) {
    const std::uint64_t end = received_.begin()->second;
    received_.erase(received_.begin());
    if (next_ < end) received_.emplace_hint(received_.begin(), next_, end);
  }
  return wanted;
}

}  // namespace tarvex::server
