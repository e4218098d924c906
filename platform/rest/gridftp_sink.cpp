#include "body.h"
#include "content_range.h"
#include "error.h"
#include "file_version.h"
#include "first_failure.h"
#include "gridftp_buffers.h"

#include <algorithm>
#include <array>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>

namespace tarvex::rest {
namespace {

/// Gathered before they are written at once: little enough to be in the core's own cache still, together with libcurl's
/// buffer.
constexpr std::size_t WRITTEN_AT_ONCE_BYTES = std::size_t{128} << 10;

/// Hands an answer's body to the client's data channel.
///
/// libcurl's pieces are small (16 KiB), so they are gathered. As long as the client keeps up they are written at once,
/// from the same buffer again and again. What it does not take goes through a ring of buffers: one is registered when
/// it is full, or when nothing is on its way and nothing more has arrived, so that the blocks grow with the load. The
/// requesting thread fills the buffer of write number `submitted_`; the I/O thread completes the writes before it.
class gridftp_writer {
 public:
  gridftp_writer(tarvex_dsi_rest_gridftp_op_arg_t& argument, std::optional<std::int64_t> asked_start)
      : argument_(argument), asked_start_(asked_start), offset_(argument.offset) {
    for (slot& write : slots_) write.writer = this;
  }
  gridftp_writer(const gridftp_writer&) = delete;
  gridftp_writer& operator=(const gridftp_writer&) = delete;
  ~gridftp_writer() { wait_for_writes(); }

  tarvex_result_t start(const response_head& head) {
    dropping_ = head.status() >= 300;
    if (const tarvex_result_t changed = check_file_version(argument_.op, head); changed != TARVEX_SUCCESS) {
      dropping_ = true;
      return changed;
    }
    if (dropping_ || !asked_start_) return TARVEX_SUCCESS;
    // A server may ignore a Range header and send the whole (RFC 9110 section 14.2).
    if (head.status() != 206) skip_bytes_ = static_cast<std::uint64_t>(*asked_start_);
    if (head.status() != 206) return TARVEX_SUCCESS;
    // Where a part begins its answer has to say (RFC 9110 section 15.3.7).
    if (parse_content_range(head.find("Content-Range")).first == *asked_start_) return TARVEX_SUCCESS;
    dropping_ = true;
    return fail(attempt::useless, "The server sent another range of the file than it was asked for.");
  }

  tarvex_result_t push(std::span<const char> piece, bool& full) {
    if (dropping_) return TARVEX_SUCCESS;
    const std::size_t skipped = std::min<std::uint64_t>(skip_bytes_, piece.size());
    skip_bytes_ -= skipped;
    piece = piece.subspan(skipped);
    const std::uint64_t left = room_in_range();
    full = piece.size() > left;
    return gather(piece.first(std::min<std::uint64_t>(left, piece.size())));
  }

  tarvex_result_t idle() {
    if (filled_ == 0) return TARVEX_SUCCESS;
    {
      const std::lock_guard lock(mutex_);
      if (submitted_ != completed_) return failure_.take();
    }
    return hand_over();
  }

  tarvex_result_t finish(bool complete) {
    tarvex_result_t result = TARVEX_SUCCESS;
    if (complete && filled_ > 0) result = hand_over();
    wait_for_writes();
    if (result == TARVEX_SUCCESS) result = failure_.take();
    argument_.eof = complete && !dropping_ && result == TARVEX_SUCCESS;
    return result;
  }

 private:
  struct slot {
    std::unique_ptr<unsigned char[]> data;
    gridftp_writer* writer = nullptr;
  };

  static void write_done(tarvex_gfs_operation_t, tarvex_result_t result, unsigned char*, std::size_t, void* user_arg) {
    gridftp_writer& writer = *static_cast<slot*>(user_arg)->writer;
    const std::lock_guard lock(writer.mutex_);
    writer.failure_.note(copy_result(result));
    ++writer.completed_;
    writer.changed_.notify_all();  // under the mutex: the waiter may destroy the writer next
  }

  /// Bytes that the range still takes, the gathered ones counted.
  std::uint64_t room_in_range() const {
    const std::int64_t used = offset_ - argument_.offset + static_cast<std::int64_t>(filled_);
    const std::int64_t limit = argument_.length < 0 ? INT64_MAX - argument_.offset : argument_.length;
    return static_cast<std::uint64_t>(limit - used);
  }

  tarvex_result_t gather(std::span<const char> piece) {
    while (!piece.empty()) {
      if (filled_ == 0) {
        if (const tarvex_result_t result = wait_for_buffer(); result != TARVEX_SUCCESS) return result;
      }
      const std::size_t amount = std::min(piece.size(), GRIDFTP_BUFFER_BYTES - filled_);
      std::memcpy(current().data.get() + filled_, piece.data(), amount);
      filled_ += amount;
      piece = piece.subspan(amount);
      if (filled_ < (writes_wait_ ? GRIDFTP_BUFFER_BYTES : WRITTEN_AT_ONCE_BYTES)) continue;
      const tarvex_result_t result = writes_wait_ ? submit() : hand_over();
      if (result != TARVEX_SUCCESS) return result;
    }
    return TARVEX_SUCCESS;
  }

  /// Writes what was gathered at once, as far as it goes, and registers the rest.
  tarvex_result_t hand_over() {
    std::size_t sent = 0;
    const tarvex_result_t result =
        tarvex_gridftp_server_write_now(argument_.op, current().data.get(), filled_, offset_, &sent);
    if (result != TARVEX_SUCCESS) return result;
    offset_ += static_cast<tarvex_off_t>(sent);
    if (sent < filled_) return submit(sent);
    filled_ = 0;
    return TARVEX_SUCCESS;
  }

  slot& current() { return slots_[submitted_ % slots_.size()]; }

  tarvex_result_t wait_for_buffer() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return failure_ || submitted_ - completed_ < slots_.size(); });
    if (failure_) return failure_.take();
    writes_wait_ = submitted_ != completed_;
    if (!current().data) current().data = std::make_unique_for_overwrite<unsigned char[]>(GRIDFTP_BUFFER_BYTES);
    return TARVEX_SUCCESS;
  }

  /// Registers what was gathered, without the bytes before `first`.
  tarvex_result_t submit(std::size_t first = 0) {
    slot& write = current();
    const std::size_t amount = std::exchange(filled_, 0) - first;
    const tarvex_off_t at = std::exchange(offset_, offset_ + static_cast<tarvex_off_t>(amount));
    {
      const std::lock_guard lock(mutex_);
      ++submitted_;
    }
    // Not under the mutex: the server may hold a lock of its own around its completions.
    const tarvex_result_t result =
        tarvex_gridftp_server_register_write(argument_.op, write.data.get() + first, amount, at, 0, write_done, &write);
    if (result == TARVEX_SUCCESS) return TARVEX_SUCCESS;
    const std::lock_guard lock(mutex_);
    --submitted_;
    failure_.note(result);
    return failure_.take();
  }

  void wait_for_writes() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return submitted_ == completed_; });
  }

  tarvex_dsi_rest_gridftp_op_arg_t& argument_;
  const std::optional<std::int64_t> asked_start_;

  // The requesting thread's alone.
  tarvex_off_t offset_;           ///< where the gathered bytes belong
  std::size_t filled_ = 0;        ///< bytes gathered in the current buffer
  bool writes_wait_ = false;      ///< for the client, when the buffer was begun
  std::uint64_t skip_bytes_ = 0;  ///< of the body, before the range begins
  bool dropping_ = false;

  std::array<slot, GRIDFTP_BUFFER_COUNT> slots_;
  std::mutex mutex_;  ///< guards what follows
  std::condition_variable changed_;
  std::uint64_t submitted_ = 0;  ///< writes; changed by the requesting thread alone
  std::uint64_t completed_ = 0;
  first_failure failure_;
};

}  // namespace

tarvex_result_t make_gridftp_sink(tarvex_dsi_rest_gridftp_op_arg_t& argument, std::optional<std::int64_t> asked_start,
                                  body_sink& sink) {
  if (const tarvex_result_t result = check_gridftp_range(argument); result != TARVEX_SUCCESS) return result;
  argument.eof = false;
  auto writer = std::make_shared<gridftp_writer>(argument, asked_start);
  sink.start = [writer](const response_head& head) { return writer->start(head); };
  sink.push = [writer](std::span<const char> piece, bool& full) { return writer->push(piece, full); };
  sink.idle = [writer] { return writer->idle(); };
  sink.finish = [writer](bool complete) { return writer->finish(complete); };
  return TARVEX_SUCCESS;
}

}  // namespace tarvex::rest
