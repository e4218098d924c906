#include "storage/transfer.h"

#include "net/block_receiver.h"
#include "net/block_sender.h"
#include "net/data_receiver.h"
#include "net/data_sender.h"
#include "net/data_socket.h"

#include <algorithm>

namespace tarvex::server {

namespace asio = boost::asio;

namespace {

constexpr std::chrono::milliseconds CONNECTION_LIMIT{60'000};
constexpr std::chrono::milliseconds GAP_LIMIT{10'000};  // in which a client may open the connection that is missing
constexpr std::size_t WAITING_TEXT_MAX = 1 << 20;       // before the storage is made to wait

}  // namespace

transfer::transfer(transfer_client client) : client_(std::move(client)), progress_timer_(client_.loop) {
  std::function<void(std::string)> failed = [this](const std::string& why) { cancel(426, why); };
  if (!client_.blocks) {
    sender_ = std::make_unique<data_sender>(client_.loop, client_.stall_limit, std::move(failed));
    return;
  }
  auto lanes =
      std::make_unique<block_sender>(client_.loop, block_sender::rules{.block_bytes = client_.blocks->block_bytes,
                                                                       .stall_limit = client_.stall_limit,
                                                                       .failed = std::move(failed)});
  lanes_ = lanes.get();
  sender_ = std::move(lanes);
}

transfer::~transfer() = default;

void transfer::receive(const incoming_data& what) {
  std::function<void(int, const std::string&)> broken = [this](int code, const std::string& why) {
    note_failure(code, why);
  };
  restart_point_ = what.restart_point;
  if (!client_.blocks) {
    data_receiver::rules rules;
    rules.window_bytes = what.window_bytes;
    rules.stall_limit = client_.stall_limit;
    rules.expected = what.expected;
    rules.end_grace = std::chrono::milliseconds(0);  // it follows once all are there
    rules.peer_present = client_.present;
    rules.require_close_notify = client_.require_close_notify;
    rules.broken = std::move(broken);
    receiver_ = std::make_unique<data_receiver>(client_.loop, std::move(rules));
    return;
  }
  receiver_ = std::make_unique<block_receiver>(
      client_.loop, block_receiver::rules{.start = what.start,
                                          .shift = what.shift,
                                          .expected = what.expected,
                                          .window_bytes = client_.blocks->window_bytes,
                                          .account = client_.blocks->account,
                                          .connections_max = client_.blocks->connections_max,
                                          .stall_limit = client_.stall_limit,
                                          .gap_limit = std::min(GAP_LIMIT, client_.stall_limit),
                                          .peer_present = client_.present,
                                          .broken = std::move(broken)});
}

void transfer::begin() {
  if (begun_.exchange(true)) return;
  client_.loop.post([self = shared_from_this()] { self->client_.loop.spawn(open(self)); });
}

asio::awaitable<void> transfer::open(std::shared_ptr<transfer> self) {
  if (self->failed_) co_return;
  self->client_.opening();
  self->tell_progress();
  if (self->lanes_ && !self->receiver_) co_return self->open_lanes();
  if (self->lanes_) co_return co_await accept_lanes(self);
  data_connection connection = co_await self->client_.data.open(CONNECTION_LIMIT);
  if (self->over_) co_return;
  if (!connection.socket) self->cancel(connection.code, connection.error);
  if (!connection.socket || self->failed_) co_return;
  if (self->receiver_) {
    self->receiver_->attach(std::move(connection.socket));
  } else {
    self->sender_->attach(std::move(connection.socket));
  }
}

/// The client connects as often as it likes, until the data end.
asio::awaitable<void> transfer::accept_lanes(std::shared_ptr<transfer> self) {
  std::optional<std::chrono::milliseconds> limit = CONNECTION_LIMIT;
  while (true) {
    data_connection connection = co_await self->client_.data.open_another(limit);
    if (self->over_) co_return;
    if (!connection.socket && limit) co_return self->cancel(connection.code, connection.error);
    if (!connection.socket) co_return;  // those that are there may be all
    self->receiver_->attach(std::move(connection.socket));
    limit.reset();
  }
}

void transfer::open_lanes() {
  const block_settings& wanted = *client_.blocks;
  const std::uint64_t blocks = announced_.value_or(0) / wanted.block_bytes + 1;
  lanes_asked_ =
      client_.data.passive() ? 1 : static_cast<unsigned>(std::min<std::uint64_t>(blocks, wanted.connections));
  lanes_->expect(lanes_asked_);
  for (unsigned lane = 0; lane < lanes_asked_; ++lane) client_.loop.spawn(open_lane(shared_from_this()));
}

/// Fewer connections than were asked for will do, as long as there is one.
asio::awaitable<void> transfer::open_lane(std::shared_ptr<transfer> self) {
  data_connection connection = co_await self->client_.data.open_another(CONNECTION_LIMIT);
  if (self->over_) co_return;
  if (connection.socket) co_return self->sender_->attach(std::move(connection.socket));
  if (++self->lanes_missing_ == self->lanes_asked_) co_return self->cancel(connection.code, connection.error);
  self->lanes_->missing();
}

void transfer::tell_progress() {
  if (!client_.blocks || client_.blocks->interval.count() == 0) return;
  progress_timer_.start(client_.blocks->interval, [this] {
    client_.blocks->progress(moved_bytes(), restart_point_ ? restart_point_() : 0);
    tell_progress();
  });
}

bool transfer::push_text(std::string text) {
  begin();
  if (text.empty()) return true;
  if (!sender_->wait_for_room(WAITING_TEXT_MAX)) return false;
  data_piece piece;
  piece.owned = std::move(text);
  return sender_->push(std::move(piece));
}

void transfer::cancel(int code, const std::string& why) {
  if (cancel_) return cancel_(code, why);
  fail(code, why);
}

void transfer::note_failure(int code, const std::string& text) {
  if (!failed_) failed_ = failure{code, text};
  broken_ = true;
}

void transfer::explain_failure(const std::string& more) {
  if (failed_) failed_->text += " " + more;
}

void transfer::fail(int code, const std::string& text) {
  note_failure(code, text);
  close_down();
  if (receiver_) receiver_->abort();
}

void transfer::close_down() {
  over_ = true;
  progress_timer_.cancel();
  client_.data.close();
  sender_->abort();
}

asio::awaitable<void> transfer::finish(bool success) {
  if (success && !failed_ && !receiver_) {
    (void)co_await sender_->finish();  // a failure was told through cancel()
    progress_timer_.cancel();
    co_return;
  }
  close_down();
  if (receiver_) receiver_->finish();
}

}  // namespace tarvex::server
