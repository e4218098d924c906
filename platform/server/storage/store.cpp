#include "storage/store.h"

#include "storage/block_source.h"
#include "storage/spool.h"
#include "storage/storage_session.h"
#include "storage/transfer.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace tarvex::server {

namespace {

constexpr std::size_t READ_AHEAD_BYTES = 16 << 20;  // while the plug-in is busy with what it has read
constexpr std::size_t SPOOL_AHEAD_BYTES = 1 << 20;  // a disk is not waited for as long

/// Why the spool did not take something.
std::string spool_error(int error, std::uint64_t limit) {
  if (error == EFBIG && limit != 0)
    return "The server holds at most " + std::to_string(limit) +
           " bytes of a file whose size it does not know; announce the size with ALLO.";
  return std::string("The server cannot hold the file: ") + std::strerror(error) +
         "; announce its size with ALLO, or try again later.";
}

}  // namespace

void block_counter::note(std::size_t length, const read_outcome& outcome) {
  if (length != left_) start_ = outcome.offset;
  left_ = length - std::min(length, outcome.bytes);
  if (outcome.failed && !failed_) failed_ = start_;
}

store::store(storage_session& storage, std::shared_ptr<transfer> channel, const store_request& request)
    : storage_(storage), channel_(std::move(channel)), request_(request) {
  std::optional<std::uint64_t> expected;
  if (request.size > 0) expected = request.size - request.offset;
  channel_->receive(expected, expected ? READ_AHEAD_BYTES : SPOOL_AHEAD_BYTES);
}

store::~store() = default;

void store::run(operation& op) {
  if ((request_.size == 0 && !spool_ && !learn_size()) || op.cancelled) {
    tarvex_gridftp_server_finished_transfer(&op, TARVEX_FAILURE);
    return;
  }
  tarvex_gfs_transfer_info_t info{op.subject.path.c_str(), request_.size, request_.offset == 0};
  storage_.interface()->recv_func(&op, &info, storage_.handle());
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
  const configuration& config = storage_.config();
  spool held({.memory_bytes = storage_.chunked_minimum(),
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
  storage_.loop().post([channel = channel_, code, text] {
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
  storage_.loop().post([this, wanted = std::move(wanted), outcome, error]() mutable {
    if (error != 0) channel_->note_failure(451, spool_error(error, 0));
    if (outcome.eof && !channel_->client_present()) channel_->note_failure(426, "The client is gone.");
    if (channel_->failed()) outcome = {.failed = true, .bytes = 0, .offset = outcome.offset, .eof = true};
    done(wanted, outcome);
  });
  return true;
}

/// Passes an outcome on.
void store::done(const data_read& wanted, read_outcome outcome) {
  outcome.offset += request_.offset;
  blocks_.note(wanted.length, outcome);
  if (!outcome.failed) end_passed_ |= outcome.eof;
  wanted.done(outcome);
}

std::optional<unfinished_store> store::leftover() const {
  if (!channel_->begun() || request_.size <= storage_.chunked_minimum()) return std::nullopt;
  return unfinished_store{request_.size, blocks_.failed().value_or(0)};
}

}  // namespace tarvex::server
