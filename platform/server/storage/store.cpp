#include "storage/store.h"

#include "base/log.h"
#include "base/text.h"
#include "ftp/path.h"
#include "storage/block_source.h"
#include "storage/inside.h"
#include "storage/operation_prepare.h"
#include "storage/spool.h"
#include "storage/storage_session.h"
#include "storage/transfer.h"

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <future>
#include <utility>

namespace tarvex::server {

namespace {

constexpr std::size_t READ_AHEAD_BYTES = 16 << 20;  // while the plug-in is busy with what it has read
constexpr std::size_t SPOOL_AHEAD_BYTES = 1 << 20;  // a disk is not waited for as long
constexpr std::uint64_t BEGINNING_BYTES = 8 << 20;  // below what is read ahead, and about a part of Box's
constexpr timespec POLL = {.tv_sec = 0, .tv_nsec = 10'000'000};
constexpr std::time_t LONGEST_WAIT_S = 4;
constexpr std::chrono::milliseconds END_LOOK_INTERVAL{20};
constexpr const char* CLIENT_GONE = "The client is gone.";

/// The hex digits of a Digest header ("sha=" and base64, RFC 3230); empty: it is none of a SHA-1.
std::string digest_hex(std::string_view header) {
  constexpr std::string_view ALGORITHM = "sha=";
  constexpr std::size_t SHA1_BASE64 = 28;
  if (!header.starts_with(ALGORITHM) || header.size() != ALGORITHM.size() + SHA1_BASE64) return {};
  std::array<unsigned char, 21> bytes{};  // with the byte that the padding stands for
  const auto* const text = reinterpret_cast<const unsigned char*>(header.data() + ALGORITHM.size());
  if (EVP_DecodeBlock(bytes.data(), text, static_cast<int>(SHA1_BASE64)) != static_cast<int>(bytes.size())) return {};
  std::string hex;
  append_hex(hex, std::span(bytes).first(20));
  return hex;
}

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
    : storage_(storage), channel_(std::move(channel)), request_(request), announced_(request.size > 0) {
  std::optional<std::uint64_t> expected;
  if (request.size > 0) expected = request.size - request.offset;
  // Bytes that were counted need no grace; for others it follows once all are there.
  channel_->receive({.expected = expected,
                     .window_bytes = expected ? READ_AHEAD_BYTES : SPOOL_AHEAD_BYTES,
                     .start = request.offset,
                     .shift = request.shift,
                     .restart_point = [this] { return restart_point(); }});
  if (request.size <= storage_.chunked_minimum()) sha1_ = checksum_stream::create("SHA1");
}

store::~store() {
  // To give the disk back may take seconds, and the reply has not gone out yet.
  if (spool_ && !spool_->in_memory()) storage_.leavings().take(std::move(spool_));
}

void store::run(operation& op) {
  if (!await_data(op)) {
    if (!op.finished) tarvex_gridftp_server_finished_transfer(&op, TARVEX_FAILURE);
    return;
  }
  call_plugin(op);
  for (std::time_t wait_s = 1; wait_s <= LONGEST_WAIT_S && may_run_again(op); wait_s *= 2) {
    const timespec wait = {.tv_sec = wait_s, .tv_nsec = 0};
    if (tarvex_sleep(&wait) != 0) return;
    std::optional<item_stat> taken;
    const owned_result free = find_inside(op, op.subject.path, taken);
    if (!free.ok() || taken || !rewind()) return;
    log_info("{}: STOR {}: nothing was stored; sent again after {} s", storage_.who(), operation_path(op), wait_s);
    op.result = {};
    op.finished = false;
    call_plugin(op);
  }
}

/// Waits for what has to be here before the plug-in is called. \return false when it is not to be called.
bool store::await_data(operation& op) {
  const bool announced = request_.size > 0;
  const bool in_one_piece = request_.size <= storage_.chunked_minimum();
  if (spool_ || (announced && !request_.replaces)) return !op.cancelled;
  const bool there = announced && !in_one_piece ? await_beginning(op) : take_in(op);
  return there && !op.cancelled && prepare_anew(op);
}

/// While the data came in others may have renamed what stood there, or added an item: the plug-in would delete the one
/// where it is now, and the other without waiting for a sign of life. \return false when the store is over with that.
bool store::prepare_anew(operation& op) {
  if (!operation_prepare(op)) return false;
  std::optional<item_stat> taken;
  if (request_.replaces || !stat_inside(op, op.subject.path, taken).ok() || !taken) return true;
  request_.replaces = op.replaces = true;
  return !std::exchange(end_awaited_, false) || await_life(op);
}

/// The plug-in deletes what stands at the path as far as the session that it stores with knows, which for an upload
/// that goes on may be an earlier one: the item that it knows may have got another name since, or be another session's.
/// \return why it is not called, where nothing may be deleted; good when it may be.
owned_result store::name_refusal(operation& op, void* session) {
  if (request_.beside_file || (!request_.new_only && request_.offset == 0)) return {};
  std::optional<item_stat> taken;
  owned_result known = stat_inside(op, op.subject.path, taken, session);
  if (!known.ok()) return result_missing(known.get()) ? owned_result() : std::move(known);
  return owned_result(tarvex_error_put(tarvex_gfs_ftp_response_error_construct(
      nullptr, nullptr, 553, "PATH_EXISTS", "GridFTP-Path: %s", path_quoted(op.subject.path).c_str())));
}

void store::call_plugin(operation& op) {
  tarvex_gfs_transfer_info_t info{op.subject.path.c_str(), request_.size, request_.offset == 0};
  void* const session = request_.session ? request_.session.get() : storage_.handle();
  owned_result refused = name_refusal(op, session);
  if (!refused.ok()) return tarvex_gridftp_server_finished_transfer(&op, refused.release());
  storage_.interface()->recv_func(&op, &info, session);
}

/// Whether nothing was stored for a reason that passes, and all data are still here: Box was too busy, or the item that
/// was in the way was found gone when its deletion, whose answer had got lost, was asked for again.
bool store::may_run_again(operation& op) {
  if (!spool_ || !op.finished || op.cancelled || channel_->broken()) return false;
  const exchange_summary heard = storage_.exchanges().summary();
  if (heard.commit.sent > 0 || heard.upload.doubtful) return false;
  const bool made_way = heard.deletes.doubtful && heard.upload.sent == 0 && result_missing(op.result.get());
  return made_way || result_class(op.result.get()) == "TOO_BUSY";
}

/// What exists is deleted by the plug-in's first step, so data that will come for certain have to be here before it.
/// \return false when they do not come.
bool store::await_beginning(operation& op) {
  const std::uint64_t enough = std::min<std::uint64_t>(request_.size - request_.offset, BEGINNING_BYTES);
  channel_->begin();
  const inbound& data = channel_->receiver();
  while (data.received_bytes() < enough && !data.full()) {
    if (op.cancelled || channel_->broken() || tarvex_sleep(&POLL) != 0) return false;
  }
  return true;
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

/// Takes all data into the spool. \return false when they did not come to a good end, or cannot be held; the channel
/// has failed then.
bool store::take_in(operation& op) {
  const configuration& config = storage_.config();
  spool held({.memory_bytes = storage_.chunked_minimum(),
              .limit_bytes = config.spool_limit_bytes,
              .directory = config.spool_directory,
              .budget = storage_.environment().budget,
              .share = storage_.environment().budget_share});
  channel_->begin();
  block_source blocks(channel_->receiver());
  for (bool over = false; !over;) {
    std::span<const std::byte> bytes;
    const read_outcome outcome = blocks.next(bytes);
    if (outcome.failed || op.cancelled) return false;
    if (const int error = held.append(bytes); error != 0) {
      fail(452, spool_error(error, config.spool_limit_bytes));
      return false;
    }
    over = outcome.eof;
  }
  const bool counted = request_.size > 0;
  request_.size = held.size();
  spool_ = std::make_unique<spool>(std::move(held));
  end_counts_ = std::chrono::steady_clock::now() + channel_->end_grace();
  if (counted || channel_->end_grace().count() == 0 || channel_->receiver().end_is_certain()) return true;
  end_awaited_ = !request_.replaces;
  return end_awaited_ || await_life(op);
}

/// Waits until the end of the data counts. \return false when the client is gone; the channel has failed then.
bool store::await_life(operation& op) {
  while (!op.cancelled) {
    // What the control connection says is known on the I/O thread only.
    std::promise<std::pair<bool, bool>> told;
    storage_.loop().post([this, &told] {
      told.set_value({channel_->client_present(), channel_->client_speaks(end_counts_ - channel_->end_grace())});
    });
    const auto [present, speaks] = told.get_future().get();
    if (!present) {
      fail(426, CLIENT_GONE);
      return false;
    }
    if (speaks || std::chrono::steady_clock::now() >= end_counts_) return true;
    if (tarvex_sleep(&POLL) != 0) break;
  }
  return false;
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
  const std::uint64_t size = spool_->size();
  read_outcome outcome{.failed = false, .bytes = 0, .offset = fed_, .eof = fed_ == size};
  int error = wanted.length == 0 && !outcome.eof ? EFBIG : 0;
  // All but the last byte go on at once; what reaches the end waits until that counts.
  std::size_t length = wanted.length;
  if (end_awaited_ && fed_ + 1 < size)
    length = std::min<std::size_t>(length, static_cast<std::size_t>(size - 1 - fed_));
  if (error == 0) error = spool_->read(fed_, std::as_writable_bytes(std::span(wanted.buffer, length)), outcome.bytes);
  fed_ += outcome.bytes;
  const bool at_end = fed_ == size && end_awaited_;
  storage_.loop().post([this, wanted = std::move(wanted), outcome, error, at_end]() mutable {
    if (error != 0) channel_->note_failure(451, spool_error(error, 0));
    if (at_end) return pass_end(std::move(wanted), outcome);
    if (outcome.eof && !channel_->client_present()) channel_->note_failure(426, CLIENT_GONE);
    if (channel_->failed()) outcome = {.failed = true, .bytes = 0, .offset = outcome.offset, .eof = true};
    done(wanted, outcome);
  });
  return true;
}

/// Passes the end on once it counts: when the grace is over and the client is there, or has said something since.
void store::pass_end(data_read wanted, read_outcome outcome) {
  if (!channel_->client_present()) channel_->note_failure(426, CLIENT_GONE);
  const bool counts =
      std::chrono::steady_clock::now() >= end_counts_ || channel_->client_speaks(end_counts_ - channel_->end_grace());
  if (counts || channel_->broken()) {
    {
      const std::lock_guard lock(feed_mutex_);
      end_awaited_ = false;
    }
    if (channel_->broken()) outcome = {.failed = true, .bytes = 0, .offset = outcome.offset, .eof = true};
    return done(wanted, outcome);
  }
  if (!end_timer_) end_timer_ = std::make_unique<loop_timer>(storage_.loop());
  end_timer_->start(END_LOOK_INTERVAL,
                    [this, wanted = std::move(wanted), outcome]() mutable { pass_end(std::move(wanted), outcome); });
}

/// Passes an outcome on.
void store::done(const data_read& wanted, read_outcome outcome) {
  if (sha1_ && !spool_) sha1_->update(std::as_bytes(std::span(wanted.buffer, outcome.bytes)));
  outcome.offset += request_.offset;
  blocks_.note(wanted.length, outcome);
  if (!outcome.failed) end_passed_ |= outcome.eof;
  wanted.done(outcome);
}

std::string store::sha1(const std::string& digest) {
  if (!digest.empty()) return digest_hex(digest);
  auto stream = checksum_stream::create("SHA1");
  if (!stream) return {};
  std::vector<std::byte> block(1 << 20);
  for (std::uint64_t offset = 0; spool_ && offset < spool_->size();) {
    std::size_t got = 0;
    if (spool_->read(offset, block, got) != 0 || got == 0) return {};
    stream->update(std::span(block).first(got));
    offset += got;
  }
  if (spool_) return stream->finish().value_or("");
  return sha1_ ? sha1_->finish().value_or("") : "";
}

/// Of what is taken in first nothing has reached the storage as long as the client can break it off.
std::uint64_t store::restart_point() const {
  return announced_ && request_.size > storage_.chunked_minimum() ? blocks_.last() : 0;
}

std::optional<unfinished_store> store::leftover() const {
  if (!channel_->begun() || request_.size <= storage_.chunked_minimum()) return std::nullopt;
  const auto session = request_.session ? request_.session : storage_.session();
  return unfinished_store{.size = request_.size, .offset = blocks_.failed().value_or(0), .session = session};
}

}  // namespace tarvex::server
