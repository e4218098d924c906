#include "net/block_receiver.h"

#include "net/block_lane.h"
#include "net/block_tally.h"
#include "net/block_window.h"
#include "net/data_discard.h"
#include "net/read_intake.h"
#include "net/waiting_reads.h"

#include <boost/asio/error.hpp>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <utility>
#include <vector>

namespace tarvex::server {

namespace asio = boost::asio;
using boost::system::error_code;
using std::chrono::ceil;
using std::chrono::milliseconds;
using steady = std::chrono::steady_clock;

namespace {

constexpr std::size_t LANE_BYTES_PER_TURN = 1 << 20;  // before the I/O thread looks at another connection
constexpr milliseconds REST_AWAITED_MAX{50};          // how long a read may wait for the rest of its bytes
constexpr milliseconds ACCOUNT_LOOK_INTERVAL{20};     // for memory that others give back
constexpr int BROKEN_OFF = 426;
constexpr int WRONG_DATA = 451;

}  // namespace

struct block_receiver::state : std::enable_shared_from_this<state> {
  state(event_loop& event_loop, rules with)
      : loop(event_loop),
        rule(std::move(with)),
        window(rule.start, rule.window_bytes, rule.account),
        tally(rule.connections_max),
        stall_check(event_loop),
        partly_filled(event_loop),
        gap_check(event_loop),
        account_check(event_loop) {}

  using self_ptr = std::shared_ptr<state>;
  using lane_ptr = std::shared_ptr<block_lane>;

  event_loop& loop;
  read_intake intake;
  std::atomic<std::uint64_t> received{0};
  std::atomic<bool> full{false};

  // I/O thread.
  rules rule;
  block_window window;
  block_tally tally;
  std::vector<lane_ptr> lanes;
  waiting_reads waiting;
  bool rest_awaited = false;  // by the first read, since a while
  bool hurried = false;       // the first read has waited long enough
  bool gap_awaited = false;
  bool account_awaited = false;
  bool ended = false, broken = false;
  steady::time_point last_progress;
  loop_timer stall_check, partly_filled, gap_check, account_check;

  bool open() const { return !ended && !broken; }
  void attach(std::unique_ptr<data_socket> with);
  static asio::awaitable<void> serve(self_ptr self, lane_ptr on);

  void receive(block_lane& on);
  error_code read_on(block_lane& on, std::size_t& bytes);
  void consume(block_lane& on);
  bool begin_block(block_lane& on);
  bool place_block(block_lane& on);
  void end_block(block_lane& on);
  std::span<unsigned char> room(block_lane& on, std::uint64_t length);
  void added(block_lane& on, std::size_t bytes);
  void connection_over(const block_lane& on, error_code error);
  void end();

  void step();
  void hand_out();
  void first_done(bool failed, bool eof);
  void release_held();
  void watch_gap();
  void await_rest();
  void break_off(int code, const std::string& why);
  void watch_stall();
  void close();
};

void block_receiver::state::attach(std::unique_ptr<data_socket> with) {
  if (!open()) return;
  const auto on = std::make_shared<block_lane>(loop, std::move(with));
  if (lanes.empty()) {
    last_progress = steady::now();
    watch_stall();
  }
  lanes.push_back(on);
  if (const std::string mistake = tally.opened(); !mistake.empty()) break_off(WRONG_DATA, mistake);
  step();
  loop.spawn(serve(shared_from_this(), on));
}

asio::awaitable<void> block_receiver::state::serve(self_ptr self, lane_ptr on) {
  while (self->open() && !on->ended) {
    error_code error;
    if (on->held) {
      co_await on->room_made.wait();
    } else {
      error = co_await on->socket->readable();
    }
    if (!self->open() || on->ended) co_return;
    on->held = on->called = false;
    if (error)
      self->connection_over(*on, error);
    else
      self->receive(*on);
    self->step();
  }
}

/// Takes in what is there, until the connection has nothing more, or has to wait for room.
void block_receiver::state::receive(block_lane& on) {
  for (std::size_t turn = 0; turn < LANE_BYTES_PER_TURN;) {
    consume(on);
    if (!open() || on.held || on.ended) return;
    std::size_t bytes = 0;
    const error_code error = read_on(on, bytes);
    if (on.held || error == asio::error::would_block) return;
    if (error) return connection_over(on, error);
    last_progress = steady::now();
    turn += bytes;
  }
  consume(on);  // what the turn read last may be all that comes, and nothing tells of it again
}

error_code block_receiver::state::read_on(block_lane& on, std::size_t& bytes) {
  data_socket::moved got;
  if (on.reads_directly()) {
    const auto into = room(on, on.left);
    if (into.empty()) return {};
    got = on.socket->read_now(asio::buffer(into.data(), into.size()));
    if (got.bytes > 0) added(on, got.bytes);
  } else {
    got = on.read_now();
  }
  bytes = got.bytes;
  return got.error;
}

/// Looks at what is in the connection's buffer.
void block_receiver::state::consume(block_lane& on) {
  while (open() && !on.ended) {
    const auto unread = on.unread();
    if (!on.in_block) {
      if (unread.size() < block_header::BYTES || !begin_block(on)) return;
    } else if (on.skip > 0 && !unread.empty()) {
      const std::uint64_t dropped = std::min<std::uint64_t>(on.skip, unread.size());
      on.skip -= dropped;
      on.looked_at(static_cast<std::size_t>(dropped));
    } else if (on.skip == 0 && on.left > 0 && !unread.empty()) {
      const auto into = room(on, std::min<std::uint64_t>(on.left, unread.size()));
      if (into.empty()) return;
      std::memcpy(into.data(), unread.data(), into.size());
      on.looked_at(into.size());
      added(on, into.size());
    } else if (on.skip > 0 || on.left > 0) {
      return;
    }
    if (on.in_block && on.skip == 0 && on.left == 0) end_block(on);
  }
}

/// \return false when the sender may not send such a block; the data are broken off then.
bool block_receiver::state::begin_block(block_lane& on) {
  on.header = block_header_decode(on.unread().first<block_header::BYTES>());
  on.looked_at(block_header::BYTES);
  std::string mistake(block_header_mistake(on.header));
  if (mistake.empty() && on.header.has(block_header::END_OF_FILE)) mistake = tally.end_of_file(on.header.offset);
  if (!mistake.empty()) break_off(WRONG_DATA, mistake);
  on.in_block = true;
  return mistake.empty() && (on.header.count == 0 || place_block(on));
}

/// Finds out what becomes of a block's payload.
bool block_receiver::state::place_block(block_lane& on) {
  const std::uint64_t count = on.header.count;
  if (on.header.offset > block_header::LARGEST_FILE - count ||
      rule.shift > block_header::LARGEST_FILE - count - on.header.offset) {
    break_off(WRONG_DATA, "A block reaches beyond the largest size that a file can have.");
    return false;
  }
  const std::uint64_t offset = on.header.offset + rule.shift;
  const std::uint64_t end = offset + count;
  if (rule.expected && end > rule.start + *rule.expected) {
    break_off(WRONG_DATA, "A block reaches to byte " + std::to_string(end) + ", beyond the size of " +
                              std::to_string(rule.start + *rule.expected) + " that was announced.");
    return false;
  }
  on.skip = offset < rule.start ? std::min(rule.start - offset, count) : 0;
  on.position = offset + on.skip;
  on.left = count - on.skip;
  switch (window.promise(on.position, on.left)) {
    case block_window::fit::fresh:
      break;
    case block_window::fit::repeats:
      on.skip = count;
      on.left = 0;
      break;
    case block_window::fit::clashes:
      break_off(WRONG_DATA, "Some bytes of the block at " + std::to_string(offset) + " came before, and some did not.");
      return false;
  }
  return true;
}

void block_receiver::state::end_block(block_lane& on) {
  on.in_block = false;
  if (on.header.has(block_header::END_OF_DATA)) {
    on.ended = true;
    if (!on.empty()) return break_off(WRONG_DATA, "Data came behind the last block of a connection.");
    on.socket->close();
    if (const std::string mistake = tally.end_of_data(); !mistake.empty()) return break_off(WRONG_DATA, mistake);
  }
  if (tally.complete()) end();
}

/// Where bytes of a block go; none, and the connection is held, when they have to wait.
std::span<unsigned char> block_receiver::state::room(block_lane& on, std::uint64_t length) {
  const auto into = window.room(on.position, length);
  on.held = into.empty();
  if (!on.held || !window.short_of_account() || std::exchange(account_awaited, true)) return into;
  account_check.start(ACCOUNT_LOOK_INTERVAL, [this] {
    account_awaited = false;
    release_held();
  });
  return into;
}

void block_receiver::state::added(block_lane& on, std::size_t bytes) {
  window.added(on.position, bytes);
  on.position += bytes;
  on.left -= bytes;
  received += bytes;
  hand_out();
}

void block_receiver::state::connection_over(const block_lane& on, error_code error) {
  if (error != asio::error::eof) return break_off(BROKEN_OFF, "A data connection broke: " + error.message() + ".");
  break_off(BROKEN_OFF, on.within_block() ? "A data connection ended within a block."
                                          : "A data connection ended without a block that says so (EOD).");
}

/// All connections have said that they end.
void block_receiver::state::end() {
  const std::uint64_t total = window.end() - rule.start;
  if (window.missing() < window.end())
    return break_off(BROKEN_OFF,
                     "The data have ended, but those at byte " + std::to_string(window.missing()) + " never came.");
  if (rule.expected && total < *rule.expected)
    return break_off(BROKEN_OFF, "The data ended after " + std::to_string(total) + " of " +
                                     std::to_string(*rule.expected) + " bytes that were announced.");
  if (!rule.peer_present()) return break_off(BROKEN_OFF, "The client is gone.");
  ended = true;
}

void block_receiver::state::step() {
  const auto keep_alive = shared_from_this();
  do {
    hand_out();
  } while (intake.collect(waiting.reads()));
  await_rest();
  watch_gap();
}

void block_receiver::state::hand_out() {
  const auto keep_alive = shared_from_this();
  bool moved = false;
  while (waiting.any()) {
    const std::size_t bytes = window.take(waiting.room());
    moved |= bytes > 0;
    waiting.added(bytes);
    if (waiting.full() || (waiting.begun() && (ended || broken || hurried))) {
      first_done(false, false);
    } else if (waiting.awaits_end() && window.in_order() > 0) {
      break_off(WRONG_DATA, "More data came than the storage expects.");
      first_done(true, true);
    } else if (broken || ended) {
      first_done(broken, true);
    } else {
      break;
    }
  }
  if (moved) release_held();
}

void block_receiver::state::first_done(bool failed, bool eof) {
  partly_filled.cancel();
  rest_awaited = hurried = false;
  waiting.finish(failed, eof);
}

void block_receiver::state::release_held() {
  for (const auto& each : lanes)
    if (each->held && !std::exchange(each->called, true)) each->room_made.notify();
}

/// Whether all connections wait for bytes that none of them brings.
void block_receiver::state::watch_gap() {
  const bool any_held = std::any_of(lanes.begin(), lanes.end(), [](auto& each) { return each->stuck(); });
  const bool any_takes =
      std::any_of(lanes.begin(), lanes.end(), [](auto& each) { return !each->stuck() && !each->ended; });
  full = any_held && window.in_order() > 0;
  if (!open() || !any_held || any_takes || full) {
    if (std::exchange(gap_awaited, false)) gap_check.cancel();
    return;
  }
  if (std::exchange(gap_awaited, true)) return;
  milliseconds limit = tally.all_open() ? milliseconds(0) : rule.gap_limit;
  if (account_awaited) limit = rule.stall_limit;
  gap_check.start(limit, [this] {
    const std::string where = "The data at byte " + std::to_string(window.missing()) + " did not come";
    if (account_awaited)
      break_off(WRONG_DATA, where + ", and the server has no memory for more of those behind it; try again later.");
    else
      break_off(WRONG_DATA, where + ", and all data connections wait with data that lie more than " +
                                std::to_string(rule.window_bytes) + " bytes behind it.");
    step();
  });
}

void block_receiver::state::await_rest() {
  if (!waiting.any() || !waiting.begun() || std::exchange(rest_awaited, true)) return;
  partly_filled.start(REST_AWAITED_MAX, [this] {
    hurried = true;
    step();
  });
}

void block_receiver::state::break_off(int code, const std::string& why) {
  if (std::exchange(broken, true)) return;
  for (const auto& each : lanes) each->room_made.notify();
  if (const auto call = std::exchange(rule.broken, nullptr)) call(code, why);
}

void block_receiver::state::watch_stall() {
  const auto left = rule.stall_limit - (steady::now() - last_progress);
  stall_check.start(std::max(ceil<milliseconds>(left), milliseconds(1)), [this] {
    if (!open()) return;
    if (full || gap_awaited) last_progress = steady::now();  // it is not the peer that is waited for
    if (steady::now() - last_progress >= rule.stall_limit) {
      break_off(BROKEN_OFF, "The client sent no data for too long.");
      return step();
    }
    watch_stall();
  });
}

void block_receiver::state::close() {
  broken = true;
  rule.broken = nullptr;
  for (auto* timer : {&stall_check, &partly_filled, &gap_check, &account_check}) timer->cancel();
  intake.close(waiting.reads());
  for (const auto& each : lanes) {
    if (each->socket) each->socket->close();
    each->room_made.notify();
  }
  while (waiting.any()) first_done(true, true);
}

block_receiver::block_receiver(event_loop& loop, rules with) : state_(std::make_shared<state>(loop, std::move(with))) {}

block_receiver::~block_receiver() {
  state_->close();
}

bool block_receiver::read(data_read read) {
  const auto answer = state_->intake.push(std::move(read));
  if (answer == read_intake::answer::first_one) state_->loop.post([state = state_] { state->step(); });
  return answer != read_intake::answer::refused;
}

std::uint64_t block_receiver::received_bytes() const {
  return state_->received;
}

bool block_receiver::full() const {
  return state_->full;
}

void block_receiver::attach(std::unique_ptr<data_socket> connection) {
  state_->attach(std::move(connection));
}

void block_receiver::finish() {
  for (const auto& each : state_->lanes)
    if (!each->ended) data_discard(state_->loop, std::exchange(each->socket, nullptr));
  state_->close();
}

void block_receiver::abort() {
  state_->close();
}

}  // namespace tarvex::server
