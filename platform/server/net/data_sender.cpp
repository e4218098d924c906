#include "net/data_sender.h"

#include "net/data_socket.h"
#include "net/wake.h"

#include <boost/asio/io_context.hpp>

#include <array>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <span>
#include <utility>

namespace tarvex::server {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;
using steady = std::chrono::steady_clock;

namespace {

constexpr std::size_t PIECES_PER_CALL_MAX = 16;

asio::const_buffer piece_bytes(const data_piece& piece) {
  return piece.owned.empty() ? asio::const_buffer(piece.bytes, piece.length) : asio::buffer(piece.owned);
}

}  // namespace

struct data_sender::state : std::enable_shared_from_this<state> {
  state(event_loop& event_loop, std::chrono::milliseconds limit, std::function<void(std::string)> on_failed)
      : loop(event_loop),
        stall_limit(limit),
        failed(std::move(on_failed)),
        more(event_loop),
        ended(event_loop),
        stall_check(event_loop) {}

  event_loop& loop;
  const std::chrono::milliseconds stall_limit;

  // Shared by the threads.
  std::mutex mutex;
  std::condition_variable room;
  std::deque<data_piece> pending;  // guarded by mutex
  std::size_t waiting_bytes = 0;   // guarded by mutex: pushed and not yet sent
  bool pump_due = true;            // guarded by mutex: the I/O thread sends, and will look at `pending` by itself
  bool over = false;               // guarded by mutex
  // Belongs to the I/O thread, which changes it under the mutex; while no pump is due whoever has the mutex may write.
  std::unique_ptr<data_socket> connection;
  bool finishing = false;  // written by the I/O thread, under the mutex
  std::atomic<std::uint64_t> sent{0};

  // I/O thread.
  std::function<void(std::string)> failed;
  std::deque<data_piece> flight;
  std::size_t flight_offset = 0;  // bytes of the first piece that are out
  std::array<asio::const_buffer, PIECES_PER_CALL_MAX> buffers;
  wake more;  // pieces were pushed, or no more will be
  bool writing = false;
  bool all_sent = false;
  wake ended;
  loop_timer stall_check;
  steady::time_point last_progress;

  bool is_over() {
    const std::lock_guard lock(mutex);
    return over;
  }
  void attach(std::unique_ptr<data_socket> with);
  static asio::awaitable<void> send(std::shared_ptr<state> self);
  static asio::awaitable<void> end(std::shared_ptr<state> self);
  static asio::awaitable<bool> finish(std::shared_ptr<state> self);
  bool refill();
  std::span<const asio::const_buffer> next_buffers();
  void complete_sent(std::size_t bytes);
  void watch_peer();
  void watch_stall();
  void break_off(std::string why);
  void close(bool sent_all);
};

void data_sender::state::attach(std::unique_ptr<data_socket> with) {
  {
    const std::lock_guard lock(mutex);
    connection = std::move(with);
  }
  last_progress = steady::now();
  watch_peer();
  watch_stall();
  loop.spawn(send(shared_from_this()));
}

asio::awaitable<void> data_sender::state::send(std::shared_ptr<state> self) {
  while (self->connection) {
    if (!self->refill()) {
      if (self->finishing) co_return co_await end(self);
      co_await self->more.wait();
      continue;
    }
    const auto buffers = self->next_buffers();
    if (!buffers.empty() && buffers.front().size() == 0) {
      self->complete_sent(0);
      continue;
    }
    self->writing = true;
    self->last_progress = steady::now();
    const auto [error, bytes] = co_await self->connection->write_some(buffers);
    self->writing = false;
    if (!self->connection) co_return;
    if (error) co_return self->break_off("The client closed the data connection.");
    self->sent += bytes;
    self->complete_sent(bytes);
  }
}

/// All is out but the end itself.
asio::awaitable<void> data_sender::state::end(std::shared_ptr<state> self) {
  self->writing = true;
  const error_code error = co_await self->connection->end_sending();
  self->writing = false;
  if (!self->connection) co_return;
  if (error) co_return self->break_off("The client closed the data connection.");
  self->close(true);
}

asio::awaitable<bool> data_sender::state::finish(std::shared_ptr<state> self) {
  {
    const std::lock_guard lock(self->mutex);
    self->finishing = true;
  }
  self->more.notify();
  while (!self->is_over()) co_await self->ended.wait();
  co_return self->all_sent;
}

/// Moves what was pushed over to the I/O thread. False: there is nothing to send, and the next push will wake it.
bool data_sender::state::refill() {
  const std::lock_guard lock(mutex);
  for (auto& piece : pending) flight.push_back(std::move(piece));
  pending.clear();
  pump_due = !flight.empty() || connection->unsent();
  return pump_due;
}

/// What one system call is to send; nothing when only what the connection has taken already is left.
std::span<const asio::const_buffer> data_sender::state::next_buffers() {
  std::size_t count = 0;
  for (const auto& piece : flight) {
    if (count == buffers.size()) break;
    buffers[count++] = piece_bytes(piece);
  }
  if (count > 0) buffers.front() += flight_offset;
  return std::span(buffers).first(count);
}

/// `bytes` more are out: the pieces that they complete are done, and empty ones that follow with them.
void data_sender::state::complete_sent(std::size_t bytes) {
  {
    const std::lock_guard lock(mutex);
    waiting_bytes -= bytes;
  }
  room.notify_all();
  flight_offset += bytes;
  while (!flight.empty() && flight_offset >= piece_bytes(flight.front()).size()) {
    const data_piece piece = std::move(flight.front());
    flight.pop_front();
    flight_offset -= piece_bytes(piece).size();
    if (piece.done) piece.done(true);
  }
}

/// A reset is noticed even while nothing is being sent. A FIN is not taken as the end: a client may close its own
/// direction, in which it has nothing to say.
void data_sender::state::watch_peer() {
  connection->transport().async_wait(tcp::socket::wait_error, [self = shared_from_this()](error_code error) {
    if (!error && self->connection) self->break_off("The client closed the data connection.");
  });
}

void data_sender::state::watch_stall() {
  stall_check.start(stall_limit, [this] {
    if (writing && steady::now() - last_progress >= stall_limit)
      return break_off("The client took no data for too long.");
    watch_stall();
  });
}

void data_sender::state::break_off(std::string why) {
  const auto call = std::exchange(failed, nullptr);
  const auto keep_alive = shared_from_this();
  close(false);
  if (call) call(std::move(why));
}

void data_sender::state::close(bool sent_all) {
  std::deque<data_piece> left = std::exchange(flight, {});
  std::unique_ptr<data_socket> closing;
  {
    const std::lock_guard lock(mutex);
    closing = std::exchange(connection, nullptr);
    if (!std::exchange(over, true)) all_sent = sent_all;
    for (auto& piece : pending) left.push_back(std::move(piece));
    pending.clear();
  }
  room.notify_all();
  more.notify();
  ended.notify();
  stall_check.cancel();
  if (closing) closing->close();
  for (const auto& piece : left) {
    if (piece.done) piece.done(false);
  }
}

data_sender::data_sender(event_loop& loop, std::chrono::milliseconds stall_limit,
                         std::function<void(std::string)> failed)
    : state_(std::make_shared<state>(loop, stall_limit, std::move(failed))) {}

data_sender::~data_sender() {
  state_->failed = nullptr;
  state_->close(false);
}

bool data_sender::push(data_piece piece) {
  const std::size_t length = piece_bytes(piece).size();
  {
    const std::lock_guard lock(state_->mutex);
    if (state_->over) return false;
    state_->pending.push_back(std::move(piece));
    state_->waiting_bytes += length;
    if (std::exchange(state_->pump_due, true)) return true;
  }
  state_->loop.post([state = state_] { state->more.notify(); });
  return true;
}

std::size_t data_sender::write_now(std::span<const unsigned char> bytes) {
  const std::lock_guard lock(state_->mutex);
  if (state_->over || state_->finishing || state_->pump_due || !state_->connection) return 0;
  // An error comes again when the I/O thread sends what is left.
  const std::size_t count = state_->connection->write_now(asio::buffer(bytes.data(), bytes.size())).bytes;
  state_->sent += count;
  if (state_->connection->unsent()) {
    state_->pump_due = true;
    state_->loop.post([state = state_] { state->more.notify(); });
  }
  return count;
}

bool data_sender::wait_for_room(std::size_t limit) {
  std::unique_lock lock(state_->mutex);
  state_->room.wait(lock, [&] { return state_->over || state_->waiting_bytes <= limit; });
  return !state_->over;
}

std::uint64_t data_sender::sent_bytes() const {
  return state_->sent;
}
void data_sender::attach(std::unique_ptr<data_socket> connection) {
  state_->attach(std::move(connection));
}

asio::awaitable<bool> data_sender::finish() {
  return state::finish(state_);
}

void data_sender::abort() {
  state_->failed = nullptr;
  state_->close(false);
}

}  // namespace tarvex::server
