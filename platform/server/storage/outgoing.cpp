#include "storage/outgoing.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <utility>

namespace tarvex::server {

outgoing::outgoing(std::vector<byte_range> ranges, taker take)
    : ranges_(std::move(ranges)), take_(std::move(take)), next_(ranges_.front().offset) {}

/// Whether all of the range that the storage was told of last was handed on. That of a range without an end is for
/// others to judge.
bool outgoing::range_is_over() const {
  const byte_range& last = ranges_[asked_ - 1];
  return last.length >= 0 && next_ == last.offset + last.length;
}

byte_range outgoing::next_range() {
  const std::lock_guard lock(mutex_);
  if (asked_ == ranges_.size() || (asked_ > 0 && !range_is_over())) return {next_, 0};
  if (asked_ > 0) next_ = ranges_[asked_].offset;
  return ranges_[asked_++];
}

/// Whether bytes are due at `offset`; an attempt that begins anew repeats some that have gone out already.
tarvex_result_t outgoing::place(std::size_t bytes, tarvex_off_t offset, std::size_t& repeated) const {
  const byte_range& range = ranges_[asked_ > 0 ? asked_ - 1 : 0];
  const tarvex_off_t end = range.length < 0 ? std::numeric_limits<tarvex_off_t>::max() : range.offset + range.length;
  const auto length = static_cast<tarvex_off_t>(bytes);
  const tarvex_off_t begin = std::max(offset, handed_on_from(offset));
  if (offset < 0 || length > end - offset || !fits(begin, offset + length))
    return tarvex_error_put(tarvex_gfs_ftp_response_error_construct(
        nullptr, nullptr, 451, "INTERNAL_ERROR", "Bytes at %lld were sent where those at %lld were due.",
        static_cast<long long>(offset), static_cast<long long>(next_)));
  repeated = static_cast<std::size_t>(std::min(begin - offset, length));
  return TARVEX_SUCCESS;
}

tarvex_result_t outgoing::push(data_piece piece, tarvex_off_t offset) {
  const std::lock_guard lock(mutex_);
  std::size_t repeated = 0;
  const tarvex_result_t misplaced = place(piece.length, offset, repeated);
  if (misplaced != TARVEX_SUCCESS) return misplaced;
  piece.bytes += repeated;
  piece.length -= repeated;
  const tarvex_off_t begin = offset + static_cast<tarvex_off_t>(repeated);
  piece.offset = static_cast<std::uint64_t>(begin);
  // First: once a piece was taken nothing may fail.
  if (piece.length > 0) note(begin, begin + static_cast<tarvex_off_t>(piece.length));
  return take_(std::move(piece)) ? tarvex_result_t{TARVEX_SUCCESS} : data_channel_closed_error();
}

tarvex_result_t outgoing::write_now(std::span<const unsigned char> bytes, tarvex_off_t offset, const sender& send,
                                    std::size_t& sent) {
  const std::lock_guard lock(mutex_);
  std::size_t repeated = 0;
  const tarvex_result_t misplaced = place(bytes.size(), offset, repeated);
  if (misplaced != TARVEX_SUCCESS) return misplaced;
  const tarvex_off_t begin = offset + static_cast<tarvex_off_t>(repeated);
  // What is due next is noted without memory, which must not be wanting once bytes are out.
  const bool due = repeated < bytes.size() && begin == next_;
  const std::size_t fresh = due ? send(bytes.subspan(repeated)) : 0;
  if (fresh > 0) note(begin, begin + static_cast<tarvex_off_t>(fresh));
  sent = repeated + fresh;
  return TARVEX_SUCCESS;
}

/// The end of what was handed on around `offset`; 0: nothing was.
tarvex_off_t outgoing::handed_on_from(tarvex_off_t offset) const {
  if (offset < next_) return next_;
  const auto after = ahead_.upper_bound(offset);
  return after == ahead_.begin() ? 0 : std::prev(after)->second;
}

/// Whether bytes from `begin` on, which were not handed on, may be: without a gap before them, or, in any order, as far
/// as none of them was.
bool outgoing::fits(tarvex_off_t begin, tarvex_off_t end) const {
  if (begin >= end) return true;
  if (!any_order_) return begin == next_;
  const auto after = ahead_.lower_bound(begin);
  return after == ahead_.end() || end <= after->first;
}

void outgoing::note(tarvex_off_t begin, tarvex_off_t end) {
  const auto after = ahead_.upper_bound(begin);
  if (after != ahead_.end() && after->first == end) end = ahead_.extract(after).mapped();
  if (begin == next_) {
    next_ = end;
  } else if (const auto before = ahead_.lower_bound(begin);
             before != ahead_.begin() && std::prev(before)->second == begin) {
    std::prev(before)->second = end;
  } else {
    ahead_.emplace(begin, end);
  }
}

void outgoing::allow_any_order() {
  const std::lock_guard lock(mutex_);
  any_order_ = true;
}

bool outgoing::rewind() {
  const std::lock_guard lock(mutex_);
  if (asked_ > 1 || next_ != ranges_.front().offset || !ahead_.empty()) return false;
  asked_ = 0;
  return true;
}

tarvex_result_t data_channel_closed_error() {
  return tarvex_error_put(tarvex_gfs_ftp_response_error_construct(nullptr, nullptr, 426, "CONNECTION_CLOSED",
                                                                  "The data connection is closed."));
}

}  // namespace tarvex::server
