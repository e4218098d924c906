#include "storage/transfer.h"

#include "net/data_socket.h"

namespace tarvex::server {

namespace asio = boost::asio;

namespace {

constexpr std::chrono::seconds CONNECTION_LIMIT{60};
constexpr std::size_t WAITING_TEXT_MAX = 1 << 20;  // before the storage is made to wait

}  // namespace

transfer::transfer(transfer_client client)
    : client_(std::move(client)),
      sender_(client_.loop, client_.stall_limit, [this](const std::string& why) { cancel(426, why); }) {}

void transfer::receive(std::optional<std::uint64_t> expected, std::size_t window_bytes,
                       std::chrono::milliseconds end_grace) {
  data_receiver::rules rules;
  rules.window_bytes = window_bytes;
  rules.stall_limit = client_.stall_limit;
  rules.expected = expected;
  rules.end_grace = end_grace;
  rules.peer_present = client_.present;
  rules.require_close_notify = client_.require_close_notify;
  rules.broken = [this](int code, const std::string& why) { note_failure(code, why); };
  receiver_ = std::make_unique<data_receiver>(client_.loop, std::move(rules));
}

void transfer::begin() {
  if (begun_.exchange(true)) return;
  client_.loop.post([self = shared_from_this()] { self->client_.loop.spawn(open(self)); });
}

asio::awaitable<void> transfer::open(std::shared_ptr<transfer> self) {
  if (self->failed_) co_return;
  self->client_.opening();
  data_connection connection = co_await self->client_.data.open(CONNECTION_LIMIT);
  if (self->over_) co_return;
  if (!connection.socket) self->cancel(connection.code, connection.error);
  if (!connection.socket || self->failed_) co_return;
  if (self->receiver_) {
    self->receiver_->attach(std::move(connection.socket));
  } else {
    self->sender_.attach(std::move(connection.socket));
  }
}

bool transfer::push_text(std::string text) {
  begin();
  if (text.empty()) return true;
  if (!sender_.wait_for_room(WAITING_TEXT_MAX)) return false;
  data_piece piece;
  piece.owned = std::move(text);
  return sender_.push(std::move(piece));
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
  over_ = true;
  client_.data.close();
  sender_.abort();
  if (receiver_) receiver_->abort();
}

asio::awaitable<void> transfer::finish(bool success) {
  if (success && !failed_ && !receiver_) {
    (void)co_await sender_.finish();  // a failure was told through cancel()
    co_return;
  }
  over_ = true;
  client_.data.close();
  sender_.abort();
  if (receiver_) receiver_->finish();
}

}  // namespace tarvex::server
