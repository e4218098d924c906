#pragma once

#include "net/data_sender.h"
#include "tarvex_gridftp_server.h"

#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <span>
#include <vector>

namespace tarvex::server {

/// A range of a file.
struct byte_range {
  tarvex_off_t offset = 0;
  tarvex_off_t length = -1;  ///< -1: to the end
};

/// What the storage sends of a file: hands every byte of the wanted ranges on once, and in order unless it is told that
/// any order will do, also when the storage begins an attempt at one of them anew. Any thread, unless said otherwise.
class outgoing {
 public:
  /// Takes a piece; it calls the piece's `done`. False: nobody takes any more.
  using taker = std::function<bool(data_piece)>;
  using sender = std::function<std::size_t(std::span<const unsigned char>)>;

  /// \param ranges  in order and apart; only the last may go to the end of the file
  outgoing(std::vector<byte_range> ranges, taker take);

  /// As `tarvex_gridftp_server_get_read_range`. There is no next one before all of the range before was handed on.
  byte_range next_range();
  /// Hands on a piece that belongs at `offset`, without what was handed on before.
  /// \return an error result, which is the caller's, for bytes that leave a gap or lie beyond the range, and when
  /// nobody takes them; the piece is not done then.
  [[nodiscard]] tarvex_result_t push(data_piece piece, tarvex_off_t offset);
  /// Pieces of a range may come in any order from now on.
  void allow_any_order();
  /// Sends as many of the bytes at `offset` as go at once. Errors as for `push`.
  /// \param send  as `outbound::write_now`
  /// \param sent  takes how many of them are out, with those that were handed on before
  [[nodiscard]] tarvex_result_t write_now(std::span<const unsigned char> bytes, tarvex_off_t offset, const sender& send,
                                          std::size_t& sent);
  /// Makes ready to be sent from the start. \return false when bytes have flowed.
  bool rewind();

 private:
  bool range_is_over() const;
  tarvex_off_t handed_on_from(tarvex_off_t offset) const;
  bool fits(tarvex_off_t begin, tarvex_off_t end) const;
  void note(tarvex_off_t begin, tarvex_off_t end);
  tarvex_result_t place(std::size_t length, tarvex_off_t offset, std::size_t& repeated) const;

  const std::vector<byte_range> ranges_;
  const taker take_;
  std::mutex mutex_;
  std::size_t asked_ = 0;                       // guarded by mutex_: ranges that the storage was told of
  tarvex_off_t next_ = 0;                       // guarded by mutex_: of the file, the first byte that was not handed on
  bool any_order_ = false;                      // guarded by mutex_
  std::map<tarvex_off_t, tarvex_off_t> ahead_;  // guarded by mutex_: what was handed on beyond that, begin -> end
};

/// The error that a plug-in gets for bytes that nobody takes any more.
tarvex_result_t data_channel_closed_error();

}  // namespace tarvex::server
