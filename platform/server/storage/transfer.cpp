#include "storage/transfer.h"

#include "net/data_socket.h"
#include "session/session_state.h"

namespace tarvex::server {

namespace {

constexpr std::chrono::seconds CONNECTION_LIMIT{60};

}  // namespace

transfer::transfer(session& session, std::string verb, std::string path)
    : session_(session),
      verb_(std::move(verb)),
      path_(std::move(path)),
      stream_(session.loop, std::chrono::seconds(session.setup.config->idle_timeout_s),
              [&session](const std::string& why) { operation_cancel(session, 426, why); }) {}

void transfer::receive(std::optional<std::uint64_t> expected, std::size_t window_bytes) {
  data_receiver::rules rules;
  rules.window_bytes = window_bytes;
  rules.stall_limit = std::chrono::seconds(session_.setup.config->idle_timeout_s);
  rules.expected = expected;
  rules.peer_present = [this] { return session_.control.present(); };
  rules.broken = [this](int code, const std::string& why) { note_failure(code, why); };
  receiver_ = std::make_unique<data_receiver>(session_.loop, std::move(rules));
}

void transfer::begin() {
  if (begun_.exchange(true)) return;
  session_.loop.post([self = shared_from_this()] { self->open(); });
}

void transfer::open() {
  if (failed_) return;
  session_reply(session_, 150, "Opening data connection for " + path_ + ".");
  session_.loop.spawn(connect(shared_from_this()));
}

boost::asio::awaitable<void> transfer::connect(std::shared_ptr<transfer> self) {
  data_connection made = co_await self->session_.data.open(CONNECTION_LIMIT);
  if (self->over_) co_return;  // which has ended this wait
  if (!made.socket) operation_cancel(self->session_, 425, made.error);
  if (!made.socket || self->failed_) co_return;
  if (self->receiver_) co_return self->receiver_->attach(std::move(made.socket));
  self->stream_.attach(std::move(made.socket));
}

void transfer::note_failure(int code, const std::string& text) {
  if (!failed_) failed_ = failure{code, text};
}

void transfer::explain_failure(const std::string& more) {
  if (failed_) failed_->text += " " + more;
}

void transfer::fail(int code, const std::string& text) {
  note_failure(code, text);
  over_ = true;
  session_.data.close();
  stream_.abort();
  if (receiver_) receiver_->abort();
}

void transfer::finish(bool success, std::function<void()> over) {
  if (success && !failed_ && !receiver_) return session_.loop.spawn(drain(shared_from_this(), std::move(over)));
  over_ = true;
  session_.data.close();
  stream_.abort();
  if (receiver_) receiver_->finish();
  over();
}

boost::asio::awaitable<void> transfer::drain(std::shared_ptr<transfer> self, std::function<void()> over) {
  (void)co_await self->stream_.finish();
  over();
}

}  // namespace tarvex::server
