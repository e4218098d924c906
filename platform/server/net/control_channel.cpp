#include "net/control_channel.h"

#include "net/data_socket.h"
#include "net/line_reader.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/write.hpp>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <array>
#include <utility>
#include <vector>

namespace tarvex::server {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;

namespace {

constexpr std::chrono::milliseconds LOSS_CHECK_INTERVAL{250};
constexpr std::chrono::seconds WRITE_LIMIT{300};  // for a peer that takes no replies

/// Whether the peer has closed, though bytes that nobody reads may still lie before the end.
bool peer_hung_up(int socket) {
  pollfd entry{socket, POLLRDHUP, 0};
  return poll(&entry, 1, 0) > 0;
}

}  // namespace

struct control_channel::state : std::enable_shared_from_this<state> {
  state(event_loop& event_loop, int descriptor)
      : loop(event_loop),
        socket(event_loop.context()),
        loss_check(event_loop),
        write_check(event_loop),
        raw(descriptor) {}

  event_loop& loop;
  tcp::socket socket;
  loop_timer loss_check;
  loop_timer write_check;
  int raw;
  socket_address local, peer;
  events handlers;

  line_reader reader;
  std::array<char, 2048> buffer{};
  std::string unread;  // arrived, but there was no room for its lines
  std::deque<control_line> lines;
  bool reading = false;

  std::string sending, waiting;
  std::vector<std::function<void()>> sending_written, waiting_written;
  bool lost = false;
  bool finishing = false;
  std::function<void()> closed;

  bool open();
  bool has_room() const { return lines.size() < QUEUED_LINES_MAX && waiting.size() < WAITING_OUTPUT_MAX; }
  void read();
  void take(std::string_view bytes);
  void take_unread();
  void watch_for_loss();
  void lose();
  void write();
  void written();
  void close();
};

bool control_channel::state::open() {
  sockaddr_storage address{};
  socklen_t length = sizeof(address);
  if (getsockname(raw, reinterpret_cast<sockaddr*>(&address), &length) != 0) return false;
  if (address.ss_family != AF_INET && address.ss_family != AF_INET6) return false;
  error_code error;
  socket.assign(address.ss_family == AF_INET ? tcp::v4() : tcp::v6(), raw, error);
  if (error) return false;
  raw = -1;
  local = address_describe(socket.local_endpoint(error));
  if (error) return false;
  peer = address_describe(socket.remote_endpoint(error));
  if (error) return false;
  // Best effort: a session works without these. Urgent data (ABOR after IAC IP, IAC DM) stays in line.
  socket.set_option(tcp::no_delay(true), error);
  socket.set_option(asio::socket_base::keep_alive(true), error);
  socket.set_option(asio::socket_base::out_of_band_inline(true), error);
  return true;
}

void control_channel::state::read() {
  if (reading || lost || finishing) return;
  if (!has_room()) return watch_for_loss();
  if (!unread.empty()) return take_unread();
  loss_check.cancel();
  reading = true;
  socket.async_read_some(asio::buffer(buffer), [self = shared_from_this()](error_code error, std::size_t bytes) {
    self->reading = false;
    if (self->finishing) return;
    if (error) return self->lose();
    self->take({self->buffer.data(), bytes});
    if (!self->lines.empty()) self->handlers.on_queued();
    self->read();
  });
}

void control_channel::state::take_unread() {
  const std::string bytes = std::exchange(unread, {});
  take(bytes);
  loop.post([self = shared_from_this()] {
    if (self->handlers.on_queued && !self->finishing) self->handlers.on_queued();
  });
}

void control_channel::state::take(std::string_view bytes) {
  while (lines.size() < QUEUED_LINES_MAX) {
    const line_reader::event happened = reader.next(bytes);
    if (happened == line_reader::event::more) return;
    control_line line;
    line.too_long = happened == line_reader::event::too_long;
    if (!line.too_long) line.text = reader.take_line();
    lines.push_back(std::move(line));
  }
  unread.assign(bytes);
}

void control_channel::state::watch_for_loss() {
  loss_check.start(LOSS_CHECK_INTERVAL, [this] {
    if (peer_hung_up(socket.native_handle())) return lose();
    read();
  });
}

void control_channel::state::lose() {
  if (std::exchange(lost, true)) return;
  error_code ignored;
  socket.close(ignored);
  loss_check.cancel();
  lines.clear();
  auto calls = std::exchange(sending_written, {});
  for (auto& call : std::exchange(waiting_written, {})) calls.push_back(std::move(call));
  for (auto& call : calls) call();
  if (finishing) return close();
  handlers.on_lost();
}

void control_channel::state::write() {
  if (!sending.empty() || lost) return;
  if (waiting.empty()) {
    if (finishing) close();
    return;
  }
  sending = std::exchange(waiting, {});
  sending_written = std::exchange(waiting_written, {});
  write_check.start(WRITE_LIMIT, [this] { lose(); });
  asio::async_write(socket, asio::buffer(sending), [self = shared_from_this()](error_code error, std::size_t) {
    self->sending.clear();
    self->write_check.cancel();
    if (error) return self->lose();
    self->written();
  });
}

void control_channel::state::written() {
  for (auto& call : std::exchange(sending_written, {})) call();
  write();
  read();
}

void control_channel::state::close() {
  error_code ignored;
  if (socket.is_open()) {
    socket.shutdown(tcp::socket::shutdown_send, ignored);
    socket_drain(socket);
    socket.close(ignored);
  }
  lost = true;
  if (const auto call = std::exchange(closed, nullptr)) call();
}

control_channel::control_channel(event_loop& loop, int socket) : state_(std::make_shared<state>(loop, socket)) {}

control_channel::~control_channel() {
  state_->handlers = {};
  state_->loss_check.cancel();
  state_->write_check.cancel();
  error_code ignored;
  state_->socket.close(ignored);
  if (state_->raw >= 0) ::close(state_->raw);
}

bool control_channel::start(events handlers) {
  state_->handlers = std::move(handlers);
  if (!state_->open()) return false;
  state_->read();
  return true;
}

bool control_channel::present() const {
  return !state_->lost && !state_->finishing && !peer_hung_up(state_->socket.native_handle());
}

const socket_address& control_channel::local() const {
  return state_->local;
}
const socket_address& control_channel::peer() const {
  return state_->peer;
}
void control_channel::resume() {
  state_->read();
}

std::deque<control_line>& control_channel::lines() {
  return state_->lines;
}

std::optional<control_line> control_channel::next_line() {
  if (state_->lines.empty()) return std::nullopt;
  control_line line = std::move(state_->lines.front());
  state_->lines.pop_front();
  return line;
}

void control_channel::send(std::string text, std::function<void()> written) {
  if (state_->lost) {
    if (written) written();
    return;
  }
  state_->waiting += text;
  if (written) state_->waiting_written.push_back(std::move(written));
  state_->write();
}

void control_channel::finish(std::function<void()> closed) {
  state_->finishing = true;
  state_->closed = std::move(closed);
  state_->loss_check.cancel();
  state_->lines.clear();
  if (state_->lost) return state_->close();
  state_->write();
}

}  // namespace tarvex::server
