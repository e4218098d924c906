#pragma once

#include "net/data_sender.h"
#include "tarvex_gridftp_server.h"

#include <cstddef>
#include <functional>
#include <mutex>
#include <span>

namespace tarvex::server {

/// A range of a file.
struct byte_range {
  tarvex_off_t offset = 0;
  tarvex_off_t length = -1;  ///< -1: to the end
};

/// What the storage sends of a file: hands every byte of the wanted range on once and in order, also when the storage
/// begins an attempt anew. Any thread, unless said otherwise.
class outgoing {
 public:
  /// Takes a piece; it calls the piece's `done`. False: nobody takes any more.
  using taker = std::function<bool(data_piece)>;

  outgoing(byte_range range, taker take);

  /// As `tarvex_gridftp_server_get_read_range`.
  byte_range next_range();
  /// Hands on a piece that belongs at `offset`, without what was handed on before.
  /// \return an error result, which is the caller's, for bytes that leave a gap, and when nobody takes them; the piece
  /// is not done then.
  [[nodiscard]] tarvex_result_t push(data_piece piece, tarvex_off_t offset);
  /// Makes ready to be sent from the start. \return false when bytes have flowed.
  bool rewind();

 private:
  const byte_range range_;
  const taker take_;
  std::mutex mutex_;
  bool asked_ = false;     // guarded by mutex_
  tarvex_off_t next_ = 0;  // guarded by mutex_: of the file, the first byte that was not handed on
};

/// The error that a plug-in gets for bytes that nobody takes any more.
tarvex_result_t data_channel_closed_error();

}  // namespace tarvex::server
