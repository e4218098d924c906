#include "storage/outgoing.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace tarvex::server {

outgoing::outgoing(byte_range range, taker take) : range_(range), take_(std::move(take)), next_(range.offset) {}

byte_range outgoing::next_range() {
  const std::lock_guard lock(mutex_);
  if (std::exchange(asked_, true)) return {next_, 0};
  return range_;
}

tarvex_result_t outgoing::push(data_piece piece, tarvex_off_t offset) {
  const std::lock_guard lock(mutex_);
  const auto length = static_cast<tarvex_off_t>(piece.length);
  if (offset < 0 || offset > next_ || length > std::numeric_limits<tarvex_off_t>::max() - offset)
    return tarvex_error_put(tarvex_gfs_ftp_response_error_construct(
        nullptr, nullptr, 451, "INTERNAL_ERROR", "Bytes at %lld were sent where those at %lld were due.",
        static_cast<long long>(offset), static_cast<long long>(next_)));
  // An attempt that begins anew repeats what has gone out already.
  const tarvex_off_t sent = std::min(next_ - offset, length);
  piece.bytes += sent;
  piece.length -= static_cast<std::size_t>(sent);
  if (!take_(std::move(piece))) return data_channel_closed_error();
  next_ += length - sent;
  return TARVEX_SUCCESS;
}

bool outgoing::rewind() {
  const std::lock_guard lock(mutex_);
  if (next_ != range_.offset) return false;
  asked_ = false;
  return true;
}

tarvex_result_t data_channel_closed_error() {
  return tarvex_error_put(tarvex_gfs_ftp_response_error_construct(nullptr, nullptr, 426, "CONNECTION_CLOSED",
                                                                  "The data connection is closed."));
}

}  // namespace tarvex::server
