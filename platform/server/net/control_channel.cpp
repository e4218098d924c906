#include "net/control_channel.h"

#include "net/control_stream.h"
#include "net/line_queue.h"
#include "net/tls_engine.h"
#include "net/wake.h"

#include <boost/asio/error.hpp>

#include <array>
#include <utility>
#include <vector>

namespace tarvex::server {

namespace asio = boost::asio;
using boost::system::error_code;

namespace {

constexpr std::chrono::seconds WRITE_LIMIT{300};  // for a peer that takes no replies

}  // namespace

struct control_channel::state : std::enable_shared_from_this<state> {
  state(event_loop& event_loop, int descriptor, std::size_t line_length)
      : loop(event_loop),
        stream(event_loop, descriptor),
        write_check(event_loop),
        queue(QUEUED_BYTES_MAX, line_length),
        changed(event_loop) {}

  event_loop& loop;
  control_stream stream;
  loop_timer write_check;
  events handlers;

  line_queue queue;
  bool awaited = false;  // somebody waits in `next_line`
  bool held = false;     // a line was wanted, and not given for the sake of the output
  wake changed;          // for who waits

  std::string sending, waiting;
  std::vector<std::function<void()>> sending_written, waiting_written;
  bool writing = false;

  bool half_closed = false;
  bool lost = false;
  bool finishing = false;
  std::function<void()> closed;

  bool over() const { return lost || finishing; }
  static asio::awaitable<void> read(std::shared_ptr<state> self);
  static asio::awaitable<void> write(std::shared_ptr<state> self);
  static asio::awaitable<std::optional<control_line>> next_line(std::shared_ptr<state> self);
  static asio::awaitable<error_code> secure(std::shared_ptr<state> self, std::unique_ptr<tls_engine> tls,
                                            std::string invitation, std::chrono::milliseconds limit);
  void send(std::string text, std::function<void()> call);
  std::optional<control_line> take_line();
  void announce();
  void half_close();
  void lose();
  void written();
  void close();
};

/// Reads for as long as there is a peer, whatever runs and waits.
asio::awaitable<void> control_channel::state::read(std::shared_ptr<state> self) {
  std::array<char, 2048> buffer;
  while (!self->over()) {
    const auto [error, bytes] = co_await self->stream.read_some(asio::buffer(buffer));
    if (self->over()) co_return;
    if (error == asio::error::eof) break;
    if (error) co_return self->lose();
    if (self->queue.add({buffer.data(), bytes})) self->announce();
  }
  if (self->over()) co_return;
  self->half_close();
  co_await self->stream.reset();
  if (!self->over()) self->lose();
}

/// Lines are there.
void control_channel::state::announce() {
  if (awaited) return changed.notify();
  if (handlers.on_queued) handlers.on_queued();
}

void control_channel::state::half_close() {
  half_closed = true;
  changed.notify();
  if (handlers.on_half_closed) handlers.on_half_closed();
}

void control_channel::state::lose() {
  if (std::exchange(lost, true)) return;
  stream.close();
  write_check.cancel();
  queue.lines().clear();
  changed.notify();
  auto calls = std::exchange(sending_written, {});
  for (auto& call : std::exchange(waiting_written, {})) calls.push_back(std::move(call));
  for (auto& call : calls) call();
  if (finishing) return close();
  if (handlers.on_lost) handlers.on_lost();
}

asio::awaitable<std::optional<control_line>> control_channel::state::next_line(std::shared_ptr<state> self) {
  self->awaited = true;
  std::optional<control_line> line;
  while (!self->over() && !line) {
    line = self->take_line();
    if (!line && self->half_closed && self->queue.lines().empty()) break;
    if (!line) co_await self->changed.wait();
  }
  self->awaited = false;
  co_return line;
}

/// A peer that does not read its replies gets no more of them.
std::optional<control_line> control_channel::state::take_line() {
  held = waiting.size() >= WAITING_OUTPUT_MAX;
  if (held) return std::nullopt;
  return queue.take();
}

/// The invitation goes out before the handshake begins: nothing else may be on its way in either direction.
asio::awaitable<error_code> control_channel::state::secure(std::shared_ptr<state> self, std::unique_ptr<tls_engine> tls,
                                                           std::string invitation, std::chrono::milliseconds limit) {
  if (!invitation.empty()) {
    self->stream.hold();
    self->queue.clear();
    const auto sent = std::make_shared<wake>(self->loop);
    self->send(std::move(invitation), [sent] { sent->notify(); });
    co_await sent->wait();
  }
  if (self->over()) co_return asio::error::connection_aborted;
  co_return co_await self->stream.secure(std::move(tls), limit);
}

/// Sends until nothing waits.
asio::awaitable<void> control_channel::state::write(std::shared_ptr<state> self) {
  while (!self->lost && !self->waiting.empty()) {
    self->sending = std::exchange(self->waiting, {});
    self->sending_written = std::exchange(self->waiting_written, {});
    self->write_check.start(WRITE_LIMIT, [state = self.get()] { state->lose(); });
    const auto [error, bytes] = co_await self->stream.write(asio::buffer(self->sending));
    if (self->lost) co_return;
    self->write_check.cancel();
    if (error) co_return self->lose();
    self->written();
  }
  self->writing = false;
  if (self->finishing) self->close();
}

void control_channel::state::send(std::string text, std::function<void()> call) {
  if (lost) {
    if (call) call();
    return;
  }
  waiting += text;
  if (call) waiting_written.push_back(std::move(call));
  if (!std::exchange(writing, true)) loop.spawn(write(shared_from_this()));
}

void control_channel::state::written() {
  for (auto& call : std::exchange(sending_written, {})) call();
  if (held && !over() && waiting.size() < WAITING_OUTPUT_MAX) announce();
}

void control_channel::state::close() {
  if (!lost) stream.shut_down();
  lost = true;
  if (const auto call = std::exchange(closed, nullptr)) call();
}

control_channel::control_channel(event_loop& loop, int socket, std::size_t line_length)
    : state_(std::make_shared<state>(loop, socket, line_length)) {}

control_channel::~control_channel() {
  state_->handlers = {};
  state_->lost = true;
  state_->write_check.cancel();
  state_->stream.close();
}

bool control_channel::start(events handlers, bool held) {
  state_->handlers = std::move(handlers);
  if (!state_->stream.open()) return false;
  if (held) state_->stream.hold_from_start();
  state_->loop.spawn(state::read(state_));
  return true;
}

asio::awaitable<error_code> control_channel::secure(std::unique_ptr<tls_engine> tls, std::string invitation,
                                                    std::chrono::milliseconds limit) {
  return state::secure(state_, std::move(tls), std::move(invitation), limit);
}

bool control_channel::secured() const {
  return state_->stream.secured();
}

void control_channel::renew_ticket() {
  state_->stream.renew_ticket();
}

certificate_names control_channel::peer_certificate() const {
  return state_->stream.peer_certificate();
}

std::string control_channel::protection() const {
  return state_->stream.protection();
}

bool control_channel::present() const {
  return !state_->over() && !state_->half_closed && !state_->stream.hung_up();
}

bool control_channel::half_closed() const {
  return state_->half_closed && !state_->over();
}

std::chrono::milliseconds control_channel::retransmission_timeout() const {
  return state_->stream.retransmission_timeout();
}

const socket_address& control_channel::local() const {
  return state_->stream.local();
}

const socket_address& control_channel::peer() const {
  return state_->stream.peer();
}

asio::awaitable<std::optional<control_line>> control_channel::next_line() {
  return state::next_line(state_);
}

std::optional<control_line> control_channel::take_line() {
  return state_->take_line();
}

std::deque<control_line>& control_channel::lines() {
  return state_->queue.lines();
}

void control_channel::send(std::string text, std::function<void()> written) {
  state_->send(std::move(text), std::move(written));
}

void control_channel::finish(std::function<void()> closed) {
  state_->finishing = true;
  state_->closed = std::move(closed);
  state_->queue.lines().clear();
  state_->changed.notify();
  if (state_->lost || !state_->writing) state_->close();
}

}  // namespace tarvex::server
