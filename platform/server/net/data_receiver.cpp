#include "net/data_receiver.h"

#include "net/data_discard.h"
#include "net/data_socket.h"
#include "net/read_queue.h"
#include "net/wake.h"

#include <boost/asio/error.hpp>
#include <boost/asio/ssl/error.hpp>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <utility>
#include <vector>

namespace tarvex::server {

namespace asio = boost::asio;
using boost::system::error_code;
using std::chrono::ceil;
using std::chrono::milliseconds;
using steady = std::chrono::steady_clock;

namespace {

constexpr std::size_t RECEIVED_PER_TURN = 4 << 20;  // before the I/O thread looks at anything else
constexpr milliseconds PARTLY_FILLED_MAX{50};       // how long a read may wait for the rest of its bytes

}  // namespace

struct data_receiver::state : std::enable_shared_from_this<state> {
  state(event_loop& event_loop, rules with)
      : loop(event_loop),
        rule(std::move(with)),
        queue(rule.window_bytes, rule.hold_last_bytes),
        room_made(event_loop),
        stall_check(event_loop),
        partly_filled(event_loop),
        grace(event_loop) {}

  event_loop& loop;

  // Shared by the threads.
  std::mutex mutex;
  std::vector<data_read> pending;  // guarded by mutex
  bool step_due = false;           // guarded by mutex: the I/O thread will look at `pending` by itself
  bool over = false;               // guarded by mutex
  std::atomic<std::uint64_t> received{0};

  // I/O thread.
  rules rule;
  std::unique_ptr<data_socket> connection;
  read_queue queue;
  bool rest_awaited = false;  // by the first read, since a while
  bool hurried = false;       // the first read has waited long enough
  bool waiting = false;       // for the peer
  wake room_made;             // for the bytes that the peer may have sent
  bool ended = false, broken = false;
  std::atomic<bool> certain{false};  // read by any thread
  bool end_confirmed = false;
  steady::time_point last_progress;  // and the time of the end
  loop_timer stall_check, partly_filled, grace;

  void attach(std::unique_ptr<data_socket> with);
  bool receiving() const { return connection && !ended && !broken; }
  static asio::awaitable<void> receive(std::shared_ptr<state> self);
  void receive_available();
  void add(std::size_t bytes);
  void end(error_code error);
  void step();
  bool take_pending();
  void hand_out();
  bool end_may_pass();
  void first_done(bool failed, bool eof);
  void await_rest();
  void break_off(int code, const std::string& why);
  void watch_stall();
  void close();
};

void data_receiver::state::attach(std::unique_ptr<data_socket> with) {
  connection = std::move(with);
  last_progress = steady::now();
  watch_stall();
  step();
  loop.spawn(receive(shared_from_this()));
}

asio::awaitable<void> data_receiver::state::receive(std::shared_ptr<state> self) {
  while (self->receiving()) {
    if (self->queue.room().empty()) {
      co_await self->room_made.wait();
      continue;
    }
    self->waiting = true;
    const error_code error = co_await self->connection->readable();
    self->waiting = false;
    if (!self->receiving()) co_return;
    if (error)
      self->end(error);
    else
      self->receive_available();
    self->step();
  }
}

void data_receiver::state::receive_available() {
  for (std::size_t turn = 0; turn < RECEIVED_PER_TURN && !broken;) {
    const auto into = queue.room();
    if (into.empty()) return;
    const auto [error, bytes] = connection->read_now(asio::buffer(into.data(), into.size()));
    if (error == asio::error::would_block) return;
    if (error) return end(error);
    add(bytes);
    turn += bytes;
  }
}

void data_receiver::state::add(std::size_t bytes) {
  last_progress = steady::now();
  received += bytes;
  queue.added(bytes);
  if (rule.expected && received > *rule.expected)
    break_off(552, "More data came than the " + std::to_string(*rule.expected) + " bytes that were announced.");
  hand_out();
}

void data_receiver::state::end(error_code error) {
  const bool truncated = error == asio::ssl::error::stream_truncated;
  if (truncated && rule.require_close_notify)
    return break_off(426, "The data ended without the close_notify of TLS that is required here.");
  // A process that is killed sends no close_notify.
  certain = error == asio::error::eof && connection && connection->secured();
  if (truncated) error = asio::error::eof;
  if (error == asio::error::eof && rule.expected && received < *rule.expected) {
    break_off(426, "The data ended after " + std::to_string(received) + " of " + std::to_string(*rule.expected) +
                       " bytes that were announced.");
  } else if (error == asio::error::eof) {
    last_progress = steady::now();
    ended = true;
  } else {
    break_off(426, "The data connection broke: " + error.message() + ".");
  }
}

void data_receiver::state::step() {
  do {
    hand_out();
  } while (take_pending());
  await_rest();
  if (!waiting) room_made.notify();
}

/// Moves what was registered over to the I/O thread. False: there is nothing, and the next read will wake it.
bool data_receiver::state::take_pending() {
  const std::lock_guard lock(mutex);
  for (auto& read : pending) queue.push(std::move(read));
  step_due = !pending.empty();
  pending.clear();
  return step_due;
}

void data_receiver::state::hand_out() {
  const auto keep_alive = shared_from_this();
  while (queue.waiting()) {
    queue.fill();
    if (queue.full() || (queue.begun() && (ended || broken || hurried))) {
      first_done(false, false);
    } else if (queue.expects_no_more()) {
      break_off(552, "More data came than the storage expects.");
      first_done(true, true);
    } else if (broken) {
      first_done(true, true);
    } else if (ended && end_may_pass()) {
      if (broken || !queue.release()) first_done(broken, true);
    } else {
      return;
    }
  }
}

/// Whether the end may be passed on. When the peer turns out to be gone the data are broken off.
bool data_receiver::state::end_may_pass() {
  if (end_confirmed) return true;
  const auto left = last_progress + rule.end_grace - steady::now();
  if (left > left.zero()) {
    grace.start(ceil<milliseconds>(left), [this] { step(); });
    return false;
  }
  if (!rule.peer_present()) break_off(426, "The client is gone.");
  end_confirmed = true;
  return true;
}

void data_receiver::state::first_done(bool failed, bool eof) {
  partly_filled.cancel();
  rest_awaited = hurried = false;
  queue.finish(failed, eof);
}

void data_receiver::state::await_rest() {
  if (!queue.begun() || std::exchange(rest_awaited, true)) return;
  partly_filled.start(PARTLY_FILLED_MAX, [this] {
    hurried = true;
    step();
  });
}

void data_receiver::state::break_off(int code, const std::string& why) {
  if (std::exchange(broken, true)) return;
  if (const auto call = std::exchange(rule.broken, nullptr)) call(code, why);
}

void data_receiver::state::watch_stall() {
  const auto left = rule.stall_limit - (steady::now() - last_progress);
  stall_check.start(std::max(ceil<milliseconds>(left), milliseconds(1)), [this] {
    if (ended || broken) return;
    if (!waiting) last_progress = steady::now();  // it is not the peer that is waited for
    if (steady::now() - last_progress >= rule.stall_limit) {
      break_off(426, "The client sent no data for too long.");
      return step();
    }
    watch_stall();
  });
}

void data_receiver::state::close() {
  broken = true;
  rule.broken = nullptr;
  for (auto* timer : {&stall_check, &partly_filled, &grace}) timer->cancel();
  {
    const std::lock_guard lock(mutex);
    over = true;
    for (auto& read : pending) queue.push(std::move(read));
    pending.clear();
  }
  if (const auto closing = std::exchange(connection, nullptr)) closing->close();
  room_made.notify();
  while (queue.waiting()) first_done(true, true);
}

data_receiver::data_receiver(event_loop& loop, rules with) : state_(std::make_shared<state>(loop, std::move(with))) {}

data_receiver::~data_receiver() {
  state_->close();
}

bool data_receiver::read(data_read read) {
  {
    const std::lock_guard lock(state_->mutex);
    if (state_->over) return false;
    state_->pending.push_back(std::move(read));
    if (std::exchange(state_->step_due, true)) return true;
  }
  state_->loop.post([state = state_] { state->step(); });
  return true;
}

bool data_receiver::end_is_certain() const {
  return state_->certain;
}

std::uint64_t data_receiver::received_bytes() const {
  return state_->received;
}

void data_receiver::attach(std::unique_ptr<data_socket> connection) {
  state_->attach(std::move(connection));
}

void data_receiver::finish() {
  if (state_->connection && !state_->ended) data_discard(state_->loop, std::move(state_->connection));
  state_->close();
}

void data_receiver::abort() {
  state_->close();
}

}  // namespace tarvex::server
