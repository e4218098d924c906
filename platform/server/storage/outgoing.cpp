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

/// Whether bytes are due at `offset`; an attempt that begins anew repeats some that have gone out already.
tarvex_result_t outgoing::place(std::size_t bytes, tarvex_off_t offset, std::size_t& repeated) const {
  const byte_range& range = ranges_[asked_ > 0 ? asked_ - 1 : 0];
  const tarvex_off_t end = range.length < 0 ? std::numeric_limits<tarvex_off_t>::max() : range.offset + range.length;
  const auto length = static_cast<tarvex_off_t>(bytes);
  if (offset < 0 || offset > next_ || length > end - offset)
    return tarvex_error_put(tarvex_gfs_ftp_response_error_construct(
        nullptr, nullptr, 451, "INTERNAL_ERROR", "Bytes at %lld were sent where those at %lld were due.",
        static_cast<long long>(offset), static_cast<long long>(next_)));
  repeated = static_cast<std::size_t>(std::min(next_ - offset, length));
  return TARVEX_SUCCESS;
}

tarvex_result_t outgoing::push(data_piece piece, tarvex_off_t offset) {
  const std::lock_guard lock(mutex_);
  std::size_t repeated = 0;
  const tarvex_result_t misplaced = place(piece.length, offset, repeated);
  if (misplaced != TARVEX_SUCCESS) return misplaced;
  piece.bytes += repeated;
  piece.length -= repeated;
  piece.offset = static_cast<std::uint64_t>(offset) + repeated;
  const auto fresh = static_cast<tarvex_off_t>(piece.length);
  if (!take_(std::move(piece))) return data_channel_closed_error();
  next_ += fresh;
  return TARVEX_SUCCESS;
}

tarvex_result_t outgoing::write_now(std::span<const unsigned char> bytes, tarvex_off_t offset, const sender& send,
                                    std::size_t& sent) {
  const std::lock_guard lock(mutex_);
  std::size_t repeated = 0;
  const tarvex_result_t misplaced = place(bytes.size(), offset, repeated);
  if (misplaced != TARVEX_SUCCESS) return misplaced;
  const std::size_t fresh = repeated < bytes.size() ? send(bytes.subspan(repeated)) : 0;
  next_ += static_cast<tarvex_off_t>(fresh);
  sent = repeated + fresh;
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
