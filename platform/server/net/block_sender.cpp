#include "net/block_sender.h"

#include "net/block_header.h"
#include "net/block_schedule.h"
#include "net/data_socket.h"
#include "net/wake.h"

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/use_awaitable.hpp>

#include <algorithm>
#include <array>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

namespace tarvex::server {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;
using steady = std::chrono::steady_clock;

namespace {

/// One connection and what it has yet to send.
struct lane {
  lane(event_loop& loop, std::unique_ptr<data_socket> connection) : socket(std::move(connection)), more(loop) {}

  std::unique_ptr<data_socket> socket;
  wake more;  // there may be a block, or no more will be
  std::array<unsigned char, block_header::BYTES> header{};
  std::vector<unsigned char> rest;  // of a block
  bool writing = false;
  bool awaits_room = false;
  steady::time_point last_progress = steady::now();
};

using buffers = std::array<asio::const_buffer, 2>;

std::size_t size_of(const buffers& of) {
  return of[0].size() + of[1].size();
}

void advance(buffers& of, std::size_t bytes) {
  const std::size_t first = std::min(bytes, of[0].size());
  of[0] += first;
  of[1] += bytes - first;
}

std::vector<unsigned char> what_is_left(buffers of, std::size_t went) {
  advance(of, went);
  std::vector<unsigned char> left;
  left.reserve(size_of(of));
  for (const asio::const_buffer& part : of) {
    const auto* const bytes = static_cast<const unsigned char*>(part.data());
    left.insert(left.end(), bytes, bytes + part.size());
  }
  return left;
}

}  // namespace

struct block_sender::state : std::enable_shared_from_this<state> {
  state(event_loop& event_loop, rules with)
      : loop(event_loop),
        rule(std::move(with)),
        schedule(rule.block_bytes),
        ended(event_loop),
        stall_check(event_loop) {}

  event_loop& loop;

  // Shared by the threads.
  std::mutex mutex;
  std::condition_variable room;
  std::vector<data_piece> pending;  // guarded by mutex
  std::size_t waiting_bytes = 0;    // guarded by mutex: pushed, and not yet with a connection
  bool look_due = false;            // guarded by mutex: the I/O thread will look at `pending` by itself
  bool over = false;                // guarded by mutex
  std::atomic<std::uint64_t> sent{0};

  // I/O thread.
  rules rule;
  block_schedule schedule;
  std::vector<std::shared_ptr<lane>> lanes;
  unsigned expected = 1;  // connections
  unsigned ended_lanes = 0;
  bool open = true;
  bool finishing = false;
  bool end_announced = false;
  bool all_sent = false;
  wake ended;
  loop_timer stall_check;
  steady::time_point last_progress;

  using self_ptr = std::shared_ptr<state>;
  using lane_ptr = std::shared_ptr<lane>;
  bool is_over() {
    const std::lock_guard lock(mutex);
    return over;
  }
  void attach(std::unique_ptr<data_socket> with);
  void notify_all();
  bool block_waits();
  bool may_end() const { return finishing && lanes.size() == expected; }
  static asio::awaitable<void> serve(self_ptr self, lane_ptr on);
  static asio::awaitable<bool> room_on(self_ptr self, lane_ptr on);
  static asio::awaitable<bool> send_block(self_ptr self, lane_ptr on, block_schedule::block block);
  static asio::awaitable<std::optional<std::size_t>> write_once(self_ptr self, lane_ptr on, buffers bytes);
  static asio::awaitable<bool> write_all(self_ptr self, lane_ptr on, buffers bytes);
  static asio::awaitable<void> end(self_ptr self, lane_ptr on);
  static asio::awaitable<bool> finish(self_ptr self);
  void let_go(const block_schedule::block& block);
  void watch_peer(lane_ptr on);
  void watch_stall();
  bool stalled() const;
  void break_off(std::string why);
  void close(bool sent_all);
};

void block_sender::state::attach(std::unique_ptr<data_socket> with) {
  if (!open) return;
  const auto on = std::make_shared<lane>(loop, std::move(with));
  lanes.push_back(on);
  if (lanes.size() == 1) {
    last_progress = steady::now();
    watch_stall();
  }
  watch_peer(on);
  loop.spawn(serve(shared_from_this(), on));
  notify_all();
}

void block_sender::state::notify_all() {
  for (const auto& each : lanes) each->more.notify();
}

/// Moves what was pushed over to the I/O thread. False: there is nothing to send, and the next push will wake it.
bool block_sender::state::block_waits() {
  const std::lock_guard lock(mutex);
  std::vector<data_piece> taken = std::exchange(pending, {});
  for (auto& piece : taken) schedule.add(std::move(piece));
  look_due = schedule.waiting();
  return look_due;
}

asio::awaitable<void> block_sender::state::serve(self_ptr self, lane_ptr on) {
  while (self->open) {
    if (!self->block_waits()) {
      if (self->may_end()) co_return co_await end(self, on);
      if (on->socket->unsent()) {
        const buffers none;
        if (!co_await write_once(self, on, none)) co_return;
        continue;
      }
      co_await on->more.wait();
      continue;
    }
    // A lane alone has nobody to leave a block to, and may as well send from where the bytes lie.
    if (self->expected > 1 && !co_await room_on(self, on)) co_return;
    const auto block = self->schedule.next();
    if (block && !co_await send_block(self, on, *block)) co_return;
  }
}

/// Waits until the connection can take something. \return false when that is over.
asio::awaitable<bool> block_sender::state::room_on(self_ptr self, lane_ptr on) {
  on->awaits_room = true;
  const auto [error] =
      co_await on->socket->transport().async_wait(tcp::socket::wait_write, asio::as_tuple(asio::use_awaitable));
  on->awaits_room = false;
  if (error && self->open) self->break_off("The client closed a data connection.");
  co_return self->open;
}

asio::awaitable<bool> block_sender::state::send_block(self_ptr self, lane_ptr on, block_schedule::block block) {
  on->header = block_header_encode({0, block.bytes.size(), block.offset});
  buffers bytes = {asio::buffer(on->header), asio::buffer(block.bytes.data(), block.bytes.size())};
  const bool alone = self->expected == 1;
  if (!alone) {
    const auto went = co_await write_once(self, on, bytes);
    if (!went) co_return false;
    on->rest = what_is_left(bytes, *went);
    bytes = {asio::buffer(on->rest), asio::const_buffer()};
    self->let_go(block);
  }
  if (!co_await write_all(self, on, bytes)) co_return false;
  self->sent += block.bytes.size();
  if (alone) self->let_go(block);
  co_return true;
}

/// \return how many bytes went; nothing when the sending is over.
asio::awaitable<std::optional<std::size_t>> block_sender::state::write_once(self_ptr self, lane_ptr on, buffers bytes) {
  on->writing = true;
  on->last_progress = steady::now();
  const auto [error, went] = co_await on->socket->write_some(bytes);
  on->writing = false;
  if (!self->open) co_return std::nullopt;
  if (error) {
    self->break_off("The client closed a data connection.");
    co_return std::nullopt;
  }
  self->last_progress = steady::now();
  co_return went;
}

asio::awaitable<bool> block_sender::state::write_all(self_ptr self, lane_ptr on, buffers bytes) {
  while (size_of(bytes) > 0) {
    const auto went = co_await write_once(self, on, bytes);
    if (!went) co_return false;
    advance(bytes, *went);
  }
  co_return true;
}

/// The last block of a connection.
asio::awaitable<void> block_sender::state::end(self_ptr self, lane_ptr on) {
  block_header last{block_header::END_OF_DATA | block_header::SENDER_CLOSES};
  if (!std::exchange(self->end_announced, true)) {
    last.bits |= block_header::END_OF_FILE;
    last.offset = self->expected;
  }
  on->header = block_header_encode(last);
  const buffers bytes = {asio::buffer(on->header), asio::const_buffer()};
  if (!co_await write_all(self, on, bytes)) co_return;
  on->writing = true;
  on->last_progress = steady::now();
  const error_code error = co_await on->socket->end_sending();
  on->writing = false;
  if (!self->open) co_return;
  if (error) co_return self->break_off("The client closed a data connection.");
  if (++self->ended_lanes == self->expected) self->close(true);
}

asio::awaitable<bool> block_sender::state::finish(self_ptr self) {
  self->finishing = true;
  self->notify_all();
  while (!self->is_over()) co_await self->ended.wait();
  co_return self->all_sent;
}

void block_sender::state::let_go(const block_schedule::block& block) {
  {
    const std::lock_guard lock(mutex);
    waiting_bytes -= block.bytes.size();
  }
  room.notify_all();
  schedule.let_go(block);
}

/// A reset is noticed even while nothing is being sent.
void block_sender::state::watch_peer(lane_ptr on) {
  on->socket->transport().async_wait(tcp::socket::wait_error, [self = shared_from_this()](error_code error) {
    if (!error && self->open) self->break_off("The client closed a data connection.");
  });
}

/// A connection that waits with nothing to send it may wait: others have taken its share.
bool block_sender::state::stalled() const {
  const auto since = steady::now() - rule.stall_limit;
  if (schedule.waiting() && last_progress < since) return true;
  return std::any_of(lanes.begin(), lanes.end(), [&](const lane_ptr& each) {
    const bool stuck = each->writing || (each->awaits_room && may_end());
    return stuck && each->last_progress < since && last_progress < since;
  });
}

void block_sender::state::watch_stall() {
  stall_check.start(rule.stall_limit, [this] {
    if (stalled()) return break_off("The client took no data for too long.");
    watch_stall();
  });
}

void block_sender::state::break_off(std::string why) {
  const auto call = std::exchange(rule.failed, nullptr);
  const auto keep_alive = shared_from_this();
  close(false);
  if (call) call(std::move(why));
}

void block_sender::state::close(bool sent_all) {
  std::vector<data_piece> left;
  {
    const std::lock_guard lock(mutex);
    if (!std::exchange(over, true)) all_sent = sent_all;
    left = std::exchange(pending, {});
  }
  open = false;
  room.notify_all();
  ended.notify();
  stall_check.cancel();
  for (const auto& each : lanes) {
    each->socket->close();
    each->more.notify();
  }
  schedule.give_up();
  for (const auto& piece : left) {
    if (piece.done) piece.done(false);
  }
}

block_sender::block_sender(event_loop& loop, rules with) : state_(std::make_shared<state>(loop, std::move(with))) {}

block_sender::~block_sender() {
  abort();
}

bool block_sender::push(data_piece piece) {
  const std::size_t length = piece.owned.empty() ? piece.length : piece.owned.size();
  {
    const std::lock_guard lock(state_->mutex);
    if (state_->over) return false;
    state_->pending.push_back(std::move(piece));
    state_->waiting_bytes += length;
    if (std::exchange(state_->look_due, true)) return true;
  }
  state_->loop.post([state = state_] { state->notify_all(); });
  return true;
}

bool block_sender::wait_for_room(std::size_t limit) {
  std::unique_lock lock(state_->mutex);
  state_->room.wait(lock, [&] { return state_->over || state_->waiting_bytes <= limit; });
  return !state_->over;
}

std::uint64_t block_sender::sent_bytes() const {
  return state_->sent;
}

void block_sender::attach(std::unique_ptr<data_socket> connection) {
  state_->attach(std::move(connection));
}

asio::awaitable<bool> block_sender::finish() {
  return state::finish(state_);
}

void block_sender::abort() {
  state_->rule.failed = nullptr;
  state_->close(false);
}

void block_sender::expect(unsigned connections) {
  state_->expected = connections;
}

void block_sender::missing() {
  --state_->expected;
  state_->notify_all();
}

}  // namespace tarvex::server
