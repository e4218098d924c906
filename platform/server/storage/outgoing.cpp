#include "storage/outgoing.h"

#include <algorithm>
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

tarvex_result_t outgoing::push(data_piece piece, tarvex_off_t offset) {
  const std::lock_guard lock(mutex_);
  const byte_range& range = ranges_[asked_ > 0 ? asked_ - 1 : 0];
  const tarvex_off_t end = range.length < 0 ? std::numeric_limits<tarvex_off_t>::max() : range.offset + range.length;
  const auto length = static_cast<tarvex_off_t>(piece.length);
  if (offset < 0 || offset > next_ || length > end - offset)
    return tarvex_error_put(tarvex_gfs_ftp_response_error_construct(
        nullptr, nullptr, 451, "INTERNAL_ERROR", "Bytes at %lld were sent where those at %lld were due.",
        static_cast<long long>(offset), static_cast<long long>(next_)));
  // An attempt that begins anew repeats what has gone out already.
  const tarvex_off_t sent = std::min(next_ - offset, length);
  piece.bytes += sent;
  piece.length -= static_cast<std::size_t>(sent);
  piece.offset = static_cast<std::uint64_t>(offset + sent);
  if (!take_(std::move(piece))) return data_channel_closed_error();
  next_ += length - sent;
  return TARVEX_SUCCESS;
}

bool outgoing::rewind() {
  const std::lock_guard lock(mutex_);
  if (asked_ > 1 || next_ != ranges_.front().offset) return false;
  asked_ = 0;
  return true;
}

tarvex_result_t data_channel_closed_error() {
  return tarvex_error_put(tarvex_gfs_ftp_response_error_construct(nullptr, nullptr, 426, "CONNECTION_CLOSED",
                                                                  "The data connection is closed."));
}

}  // namespace tarvex::server
