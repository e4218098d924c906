#include "net/data_receiver.h"

#include "net/byte_ring.h"
#include "net/data_socket.h"

#include <boost/asio/io_context.hpp>

#include <algorithm>
#include <array>
#include <atomic>
#include <deque>
#include <mutex>
#include <utility>

namespace tarvex::server {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;
using std::chrono::ceil;
using std::chrono::milliseconds;
using steady = std::chrono::steady_clock;

namespace {

constexpr std::size_t BYTES_PER_TURN = 4 << 20;  // before the I/O thread looks at anything else
constexpr milliseconds PARTLY_FILLED_MAX{50};    // how long a read may wait for the rest of its bytes
constexpr milliseconds PRESENCE_GRACE{15};  // between the closing of data and control connection of a killed process
constexpr milliseconds DISCARD_LIMIT{1000};

/// Takes a peer's data and drops them, until it has sent all or the limit is over.
class discarder : public std::enable_shared_from_this<discarder> {
 public:
  discarder(event_loop& loop, std::unique_ptr<data_socket> connection)
      : connection_(std::move(connection)), limit_(loop) {}

  void run() {
    limit_.start(DISCARD_LIMIT, [this] { close(); });
    wait();
  }

 private:
  void wait() {
    connection_->socket.async_wait(tcp::socket::wait_read, [self = shared_from_this()](error_code error) {
      if (!error) return self->drop();
      self->close();
    });
  }

  void drop() {
    std::array<unsigned char, 65536> dropped;
    error_code error;
    for (std::size_t total = 0; total < BYTES_PER_TURN && !error;)
      total += connection_->socket.read_some(asio::buffer(dropped), error);
    if (error && error != asio::error::would_block) return close();
    wait();
  }

  void close() {
    limit_.cancel();
    error_code ignored;
    connection_->socket.close(ignored);
  }

  const std::unique_ptr<data_socket> connection_;
  loop_timer limit_;
};

}  // namespace

struct data_receiver::state : std::enable_shared_from_this<state> {
  state(event_loop& event_loop, rules with)
      : loop(event_loop),
        rule(std::move(with)),
        window(rule.window_bytes),
        stall_check(event_loop),
        partly_filled(event_loop),
        grace(event_loop) {}

  event_loop& loop;

  // Shared by the threads.
  std::mutex mutex;
  std::deque<data_read> pending;  // guarded by mutex
  bool step_due = false;          // guarded by mutex: the I/O thread will look at `pending` by itself
  bool over = false;              // guarded by mutex
  std::atomic<std::uint64_t> received{0};

  // I/O thread.
  rules rule;
  std::unique_ptr<data_socket> connection;
  std::deque<data_read> reads;
  std::size_t filled = 0;     // bytes in the first read's buffer
  bool rest_awaited = false;  // by the first read, since a while
  bool hurried = false;       // the first read has waited long enough
  byte_ring window;
  std::uint64_t handed_out = 0;
  bool waiting = false;
  bool ended = false, broken = false;
  bool end_confirmed = false;
  steady::time_point last_progress;  // and the time of the end
  loop_timer stall_check, partly_filled, grace;

  void attach(std::unique_ptr<data_socket> with);
  void step();
  bool take_pending();
  void hand_out();
  bool first_is_due() const;
  void await_rest();
  bool end_may_pass();
  void first_done(bool failed, bool eof);
  void receive();
  void receive_available();
  asio::mutable_buffer room();
  void add(std::size_t bytes);
  void end(error_code error);
  void break_off(int code, const std::string& why);
  void watch_stall();
  void close();
};

void data_receiver::state::attach(std::unique_ptr<data_socket> with) {
  connection = std::move(with);
  error_code ignored;
  connection->socket.non_blocking(true, ignored);
  last_progress = steady::now();
  watch_stall();
  step();
}

void data_receiver::state::step() {
  do {
    hand_out();
  } while (take_pending());
  await_rest();
  receive();
}

/// Moves what was registered over to the I/O thread. False: there is nothing, and the next read will wake it.
bool data_receiver::state::take_pending() {
  const std::lock_guard lock(mutex);
  for (auto& read : pending) reads.push_back(std::move(read));
  step_due = !pending.empty();
  pending.clear();
  return step_due;
}

void data_receiver::state::hand_out() {
  const auto keep_alive = shared_from_this();
  while (!reads.empty()) {
    const data_read& first = reads.front();
    filled += window.take({first.buffer + filled, first.length - filled});
    if (first_is_due()) {
      first_done(false, false);
    } else if (!window.empty() && first.length == 0) {
      break_off(552, "More data came than the storage expects.");
      first_done(true, true);
    } else if (broken) {
      first_done(true, true);
    } else if (ended && end_may_pass()) {
      first_done(broken, true);
    } else {
      return;
    }
  }
}

/// Whether the first read is done with the bytes that it has.
bool data_receiver::state::first_is_due() const {
  return filled > 0 && (filled == reads.front().length || ended || broken || hurried);
}

void data_receiver::state::await_rest() {
  if (filled == 0 || std::exchange(rest_awaited, true)) return;
  partly_filled.start(PARTLY_FILLED_MAX, [this] {
    hurried = true;
    step();
  });
}

/// Whether the end may be passed on. When the peer turns out to be gone the data are broken off.
bool data_receiver::state::end_may_pass() {
  if (end_confirmed) return true;
  const auto left = last_progress + PRESENCE_GRACE - steady::now();
  if (left > left.zero()) {
    grace.start(ceil<milliseconds>(left), [this] { step(); });
    return false;
  }
  if (!rule.peer_present()) break_off(426, "The client is gone.");
  end_confirmed = true;
  return true;
}

void data_receiver::state::first_done(bool failed, bool eof) {
  const data_read read = std::move(reads.front());
  reads.pop_front();
  partly_filled.cancel();
  rest_awaited = hurried = false;
  const std::size_t bytes = failed ? 0 : std::exchange(filled, 0);
  const std::uint64_t offset = std::exchange(handed_out, handed_out + bytes);
  read.done({failed, bytes, offset, eof});
}

void data_receiver::state::receive() {
  if (!connection || waiting || ended || broken || room().size() == 0) return;
  waiting = true;
  connection->socket.async_wait(tcp::socket::wait_read, [self = shared_from_this()](error_code error) {
    self->waiting = false;
    if (!self->connection || self->ended || self->broken) return;
    if (error) return self->end(error);
    self->receive_available();
    self->step();
  });
}

void data_receiver::state::receive_available() {
  error_code error;
  for (std::size_t turn = 0; turn < BYTES_PER_TURN && !broken;) {
    const asio::mutable_buffer into = room();
    if (into.size() == 0) return;
    const std::size_t bytes = connection->socket.read_some(asio::buffer(into), error);
    if (error == asio::error::would_block) return;
    if (error) return end(error);
    add(bytes);
    turn += bytes;
  }
}

/// Where the next bytes go: to the first read, unless older ones wait in the window.
asio::mutable_buffer data_receiver::state::room() {
  if (window.empty() && !reads.empty() && filled < reads.front().length)
    return {reads.front().buffer + filled, reads.front().length - filled};
  const auto ahead = window.room();
  return {ahead.data(), ahead.size()};
}

void data_receiver::state::add(std::size_t bytes) {
  last_progress = steady::now();
  received += bytes;
  if (window.empty() && !reads.empty() && filled < reads.front().length)
    filled += bytes;
  else
    window.added(bytes);
  if (rule.expected && received > *rule.expected)
    break_off(552, "More data came than the " + std::to_string(*rule.expected) + " bytes that were announced.");
  hand_out();
}

void data_receiver::state::end(error_code error) {
  if (error == asio::error::eof && rule.expected && received < *rule.expected) {
    break_off(426, "The data ended after " + std::to_string(received) + " of " + std::to_string(*rule.expected) +
                       " bytes that were announced.");
  } else if (error == asio::error::eof) {
    last_progress = steady::now();
    ended = true;
  } else {
    break_off(426, "The data connection broke: " + error.message() + ".");
  }
  step();
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
    for (auto& read : pending) reads.push_back(std::move(read));
    pending.clear();
  }
  if (const auto closing = std::exchange(connection, nullptr)) {
    error_code ignored;
    socket_drain(closing->socket);
    closing->socket.close(ignored);
  }
  while (!reads.empty()) first_done(true, true);
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

std::uint64_t data_receiver::received_bytes() const {
  return state_->received;
}

void data_receiver::attach(std::unique_ptr<data_socket> connection) {
  state_->attach(std::move(connection));
}

void data_receiver::finish() {
  if (state_->connection && !state_->ended)
    std::make_shared<discarder>(state_->loop, std::move(state_->connection))->run();
  state_->close();
}

void data_receiver::abort() {
  state_->close();
}

}  // namespace tarvex::server
