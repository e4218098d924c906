#include "body.h"
#include "error.h"
#include "first_failure.h"
#include "gridftp_buffers.h"

#include <algorithm>
#include <array>
#include <cinttypes>
#include <condition_variable>
#include <memory>
#include <mutex>

namespace tarvex::rest {
namespace {

/// Reads ahead from the client's data channel through a ring of buffers.
///
/// The requesting thread registers reads and takes their data; the I/O thread completes them in the order in which
/// they were registered. `registered_` and `taken_` count reads, so that read n uses slot n modulo the ring's size. A
/// read that is still registered when the request ends keeps the reader alive: its buffer belongs to the server.
class gridftp_reader : public std::enable_shared_from_this<gridftp_reader> {
 public:
  explicit gridftp_reader(tarvex_dsi_rest_gridftp_op_arg_t& argument) : argument_(argument), op_(argument.op) {
    if (argument.length >= 0) length_ = static_cast<std::uint64_t>(argument.length);
  }

  tarvex_result_t pull(std::span<char> room, std::size_t& amount) {
    amount = 0;
    for (;;) {
      register_reads();
      std::unique_lock lock(mutex_);
      if (failure_ && !over_) return failure_.take();
      while (!room.empty() && may_take(room.size())) {
        const std::size_t taken = take(room);
        room = room.subspan(taken);
        amount += taken;
      }
      if (amount > 0 || (in_flight_ == 0 && !next_read())) break;
      if (in_flight_ > 0) changed_.wait(lock);
    }
    return settle(amount);
  }

 private:
  struct slot {
    std::unique_ptr<unsigned char[]> data;
    std::size_t asked = 0;
    std::size_t filled = 0;
    std::size_t taken = 0;
    bool done = false;
    std::shared_ptr<gridftp_reader> reader;  ///< set while the server has the buffer
  };

  slot& slot_of(std::uint64_t read) { return slots_[read % slots_.size()]; }

  static void read_done(tarvex_gfs_operation_t, tarvex_result_t result, unsigned char*, std::size_t nbytes,
                        tarvex_off_t, bool eof, void* user_arg) {
    auto& read = *static_cast<slot*>(user_arg);
    const std::shared_ptr<gridftp_reader> reader = std::move(read.reader);
    const std::lock_guard lock(reader->mutex_);
    read.filled = std::min(nbytes, read.asked);
    read.done = true;
    reader->received_ += read.filled;
    reader->outstanding_ -= read.asked;
    --reader->in_flight_;
    if (!reader->over_) reader->failure_.note(copy_result(result));
    if (eof && result == TARVEX_SUCCESS) reader->over_ = true;
    reader->changed_.notify_all();
  }

  /// Bytes that the next read asks for; nothing: none is wanted now. A read of 0 bytes asks whether the data end where
  /// they were said to end.
  std::optional<std::size_t> next_read() const {
    if (over_ || failure_ || refusal_ || probed_ || registered_ - taken_ == slots_.size()) return std::nullopt;
    if (!length_) return GRIDFTP_BUFFER_BYTES;
    const std::uint64_t left = *length_ - received_ - outstanding_;
    if (left == 0 && received_ != *length_) return std::nullopt;  // a short read may leave more to ask for
    return std::min<std::uint64_t>(left, GRIDFTP_BUFFER_BYTES);
  }

  slot* prepare_read() {
    const std::lock_guard lock(mutex_);
    const std::optional<std::size_t> asked = next_read();
    if (!asked) return nullptr;
    slot& read = slot_of(registered_);
    if (!read.data) read.data = std::make_unique_for_overwrite<unsigned char[]>(GRIDFTP_BUFFER_BYTES);
    read.asked = *asked;
    read.filled = read.taken = 0;
    read.done = false;
    read.reader = shared_from_this();
    outstanding_ += *asked;
    probed_ = *asked == 0;
    ++registered_;
    ++in_flight_;
    return &read;
  }

  void register_reads() {
    while (slot* const read = prepare_read()) {
      // Not under the mutex: the server may hold a lock of its own around its completions.
      const tarvex_result_t result =
          tarvex_gridftp_server_register_read(op_, read->data.get(), read->asked, read_done, read);
      if (result == TARVEX_SUCCESS) continue;
      const std::lock_guard lock(mutex_);
      read->reader.reset();
      outstanding_ -= read->asked;
      --registered_;
      --in_flight_;
      refusal_.note(result);
    }
  }

  /// Whether the oldest read has data for the body. The last bytes of a body of known length wait for the end of the
  /// client's data, so that a body that is too long never looks complete.
  bool may_take(std::size_t room) {
    while (taken_ != registered_ && slot_of(taken_).done && slot_of(taken_).filled == 0) ++taken_;
    if (taken_ == registered_ || !slot_of(taken_).done) return false;
    const slot& read = slot_of(taken_);
    return over_ || !length_ || delivered_ + std::min(room, read.filled - read.taken) < *length_;
  }

  std::size_t take(std::span<char> room) {
    slot& read = slot_of(taken_);
    const std::size_t amount = std::min(room.size(), read.filled - read.taken);
    std::copy_n(read.data.get() + read.taken, amount, room.data());
    read.taken += amount;
    delivered_ += amount;
    if (read.taken == read.filled) ++taken_;
    return amount;
  }

  /// Reports what was taken, or tells how the data ended.
  tarvex_result_t settle(std::size_t amount) {
    if (amount > 0) tarvex_gridftp_server_update_bytes_recvd(op_, static_cast<tarvex_off_t>(amount));
    const std::lock_guard lock(mutex_);
    if (amount == 0 && !over_) {
      return refusal_ ? refusal_.take() : fail(attempt::useless, "The client's data did not come to an end.");
    }
    if (amount == 0 && length_ && delivered_ < *length_) {
      return fail(attempt::useless, "The client's data ended after %" PRIu64 " of %" PRIu64 " bytes.", delivered_,
                  *length_);
    }
    argument_.eof = over_ && (length_ ? delivered_ == *length_ : amount == 0);
    return TARVEX_SUCCESS;
  }

  tarvex_dsi_rest_gridftp_op_arg_t& argument_;  ///< touched by the requesting thread only
  const tarvex_gfs_operation_t op_;
  std::optional<std::uint64_t> length_;

  std::mutex mutex_;  ///< guards everything below, except a slot that the server has
  std::condition_variable changed_;
  std::array<slot, GRIDFTP_BUFFER_COUNT> slots_;
  std::uint64_t registered_ = 0;
  std::uint64_t taken_ = 0;
  unsigned in_flight_ = 0;         ///< reads that the server has
  std::uint64_t received_ = 0;     ///< bytes of completed reads
  std::uint64_t outstanding_ = 0;  ///< bytes asked for by registered reads
  std::uint64_t delivered_ = 0;    ///< bytes of the body so far
  bool over_ = false;              ///< the client's data ended
  bool probed_ = false;            ///< the read of 0 bytes was registered
  first_failure failure_;          ///< of a read
  first_failure refusal_;          ///< of a registration; counts once all reads are over without an end of data
};

}  // namespace

tarvex_result_t make_gridftp_source(tarvex_dsi_rest_gridftp_op_arg_t& argument, body_source& source) {
  if (const tarvex_result_t result = check_gridftp_range(argument); result != TARVEX_SUCCESS) return result;
  argument.eof = false;
  auto reader = std::make_shared<gridftp_reader>(argument);
  source = {};
  source.pull = [reader](std::span<char> room, std::size_t& amount) { return reader->pull(room, amount); };
  if (argument.length >= 0) source.length_bytes = static_cast<std::uint64_t>(argument.length);
  return TARVEX_SUCCESS;
}

}  // namespace tarvex::rest
