#include "storage/store.h"

#include "session/session_state.h"
#include "storage/spool.h"
#include "storage/transfer.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <utility>

namespace tarvex::server {

namespace {

constexpr int DEFAULT_CHUNKED_MINIMUM = 50 << 20;
constexpr std::size_t READ_AHEAD_BYTES = 16 << 20;  // while the plug-in is busy with what it has read
constexpr std::size_t SPOOL_AHEAD_BYTES = 1 << 20;  // a disk is not waited for as long
constexpr std::size_t BLOCK_BYTES = 1 << 20;
constexpr std::size_t BLOCKS = 3;  // one is written while others are filled

/// Received data, block by block, for one thread that may wait for them.
class block_source {
 public:
  explicit block_source(data_receiver& receiver) : receiver_(receiver) {
    for (std::size_t i = 0; i < BLOCKS; ++i) ask(blocks_[i]);
  }
  /// Waits until the receiver has let go of every block: it has ended by then, or is over.
  ~block_source() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return asked_ == 0; });
  }
  block_source(const block_source&) = delete;
  block_source& operator=(const block_source&) = delete;

  /// The next block, which stays till the next call.
  read_outcome next(std::span<const std::byte>& bytes) {
    if (taken_ > 0) ask(blocks_[(taken_ - 1) % BLOCKS]);
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return !outcomes_.empty() || asked_ == 0; });
    if (outcomes_.empty()) return {.failed = true, .eof = true};
    const read_outcome outcome = outcomes_.front();
    outcomes_.pop_front();
    bytes = std::as_bytes(std::span(blocks_[taken_++ % BLOCKS].get(), outcome.bytes));
    return outcome;
  }

 private:
  using block = std::unique_ptr<unsigned char[]>;

  void ask(block& into) {
    if (!into) into = std::make_unique_for_overwrite<unsigned char[]>(BLOCK_BYTES);
    {
      const std::lock_guard lock(mutex_);
      ++asked_;
    }
    if (!receiver_.read({into.get(), BLOCK_BYTES, [this](const read_outcome& outcome) { done(outcome, true); }}))
      done({}, false);
  }

  void done(const read_outcome& outcome, bool taken) {
    const std::lock_guard lock(mutex_);
    --asked_;
    if (taken) outcomes_.push_back(outcome);
    changed_.notify_all();
  }

  data_receiver& receiver_;
  std::array<block, BLOCKS> blocks_;
  std::size_t taken_ = 0;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<read_outcome> outcomes_;  // guarded by mutex_
  std::size_t asked_ = 0;              // guarded by mutex_: reads that the receiver has
};

/// Why the spool did not take something.
std::string spool_error(int error, std::uint64_t limit) {
  if (error == EFBIG && limit != 0)
    return "The server holds at most " + std::to_string(limit) +
           " bytes of a file whose size it does not know; announce the size with ALLO.";
  return std::string("The server cannot hold the file: ") + std::strerror(error) +
         "; announce its size with ALLO, or try again later.";
}

}  // namespace

store::store(session& session, std::shared_ptr<transfer> channel, const store_request& request)
    : session_(session), channel_(std::move(channel)), request_(request) {
  std::optional<std::uint64_t> expected;
  if (request.size > 0) expected = request.size - request.offset;
  channel_->receive(expected, expected ? READ_AHEAD_BYTES : SPOOL_AHEAD_BYTES);
}

store::~store() = default;

std::uint64_t store::chunked_minimum() const {
  const auto setting = storage_setting(*session_.setup.storage, session_.setup.config->storage_dsi, "chunked_minimum");
  return static_cast<std::uint64_t>(std::max(setting.value_or(DEFAULT_CHUNKED_MINIMUM), 0));
}

void store::run(operation& op) {
  if ((request_.size == 0 && !spool_ && !learn_size()) || op.cancelled) {
    tarvex_gridftp_server_finished_transfer(&op, TARVEX_FAILURE);
    return;
  }
  tarvex_gfs_transfer_info_t info{op.path.c_str(), request_.size, request_.offset == 0};
  session_.setup.storage->interface->recv_func(&op, &info, session_.storage.session);
}

bool store::rewind() {
  if (!spool_) return !channel_->begun();
  const std::lock_guard lock(feed_mutex_);
  fed_ = 0;
  return true;
}

byte_range store::write_range() const {
  if (request_.offset > 0) return {static_cast<tarvex_off_t>(request_.offset), -1};
  return {0, static_cast<tarvex_off_t>(request_.size)};
}

/// \return false when the data did not come to a good end, or cannot be held; the channel has failed then.
bool store::learn_size() {
  const configuration& config = *session_.setup.config;
  spool held({.memory_bytes = chunked_minimum(),
              .limit_bytes = config.spool_limit_bytes,
              .directory = config.spool_directory});
  channel_->begin();
  block_source blocks(channel_->receiver());
  for (bool over = false; !over;) {
    std::span<const std::byte> bytes;
    const read_outcome outcome = blocks.next(bytes);
    if (outcome.failed) return false;
    if (const int error = held.append(bytes); error != 0) {
      fail(452, spool_error(error, config.spool_limit_bytes));
      return false;
    }
    over = outcome.eof;
  }
  request_.size = held.size();
  spool_ = std::make_unique<spool>(std::move(held));
  return true;
}

/// The data are of no use any more.
void store::fail(int code, const std::string& text) {
  session_.loop.post([channel = channel_, code, text] {
    channel->note_failure(code, text);
    channel->receiver().finish();
  });
}

bool store::read(data_read wanted) {
  if (spool_) return read_spooled(std::move(wanted));
  data_read noted{wanted.buffer, wanted.length, {}};
  noted.done = [this, wanted = std::move(wanted)](const read_outcome& outcome) { done(wanted, outcome); };
  return channel_->receiver().read(std::move(noted));
}

/// Reads on the calling thread, so that a slow disk does not hold up the I/O thread.
bool store::read_spooled(data_read wanted) {
  const std::lock_guard lock(feed_mutex_);
  read_outcome outcome{.failed = false, .bytes = 0, .offset = fed_, .eof = fed_ == spool_->size()};
  int error = wanted.length == 0 && !outcome.eof ? EFBIG : 0;
  if (error == 0)
    error = spool_->read(fed_, std::as_writable_bytes(std::span(wanted.buffer, wanted.length)), outcome.bytes);
  fed_ += outcome.bytes;
  session_.loop.post([this, wanted = std::move(wanted), outcome, error]() mutable {
    if (error != 0) channel_->note_failure(451, spool_error(error, 0));
    if (outcome.eof && !session_.control.present()) channel_->note_failure(426, "The client is gone.");
    if (channel_->failed()) outcome = {.failed = true, .bytes = 0, .offset = outcome.offset, .eof = true};
    done(wanted, outcome);
  });
  return true;
}

/// Passes an outcome on, and keeps in mind which buffer could not be filled.
void store::done(const data_read& wanted, read_outcome outcome) {
  outcome.offset += request_.offset;
  if (wanted.buffer != next_byte_) buffer_offset_ = outcome.offset;
  next_byte_ = wanted.buffer + outcome.bytes;
  if (outcome.failed) {
    if (!failed_offset_) failed_offset_ = buffer_offset_;
  } else {
    end_passed_ |= outcome.eof;
  }
  wanted.done(outcome);
}

std::optional<unfinished_store> store::leftover() const {
  if (!channel_->begun() || request_.size <= chunked_minimum()) return std::nullopt;
  return unfinished_store{request_.size, failed_offset_.value_or(0)};
}

}  // namespace tarvex::server
