#include "broker/broker_service.h"

#include "base/log.h"
#include "base/wall_clock.h"
#include "broker/credential_document.h"
#include "broker/login_judge.h"
#include "config/accounts_state.h"
#include "link/channel.h"

#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>
#include <boost/asio/post.hpp>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <thread>
#include <utility>

namespace tarvex::server {

namespace asio = boost::asio;

namespace {

using std::chrono::milliseconds;
using kind = broker_says::kind;

constexpr unsigned REFUSALS_MAX = 5;  ///< of one connection; sessions give up at as many
/// Tokens that one connection may say Box does not take: Box ends them at times, but not one after the other.
constexpr unsigned REFUSED_TOKENS_MAX = 20;
constexpr milliseconds ACCOUNTS_INTERVAL{1000};
constexpr milliseconds RECORDS_INTERVAL_MAX{3'600'000};
constexpr unsigned MESSAGES_PER_ROUND = 16;

/// Renewals that are due are found in a small part of the time that they are due in.
milliseconds records_interval(const configuration& config) {
  return std::min(RECORDS_INTERVAL_MAX, milliseconds(1000) * config.broker_idle_renewal_s / 8);
}

broker_says credential_failure(std::uint64_t id, int code, std::string text) {
  return {.what = kind::credential, .id = id, .code = code, .text = std::move(text)};
}

/// Never 0, the same in every process, and within what JSON takes for an integer.
std::uint64_t token_mark(const std::string& token) {
  return std::hash<std::string>()(token) >> 1U | 1U;
}

void close_line(session_line& line) {
  boost::system::error_code ignored;
  line.end.close(ignored);
}

}  // namespace

broker_service::broker_service(const configuration& config, descriptor control)
    : config_(config),
      control_(loop_, control.release()),
      cancelled_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      cache_(config.accounts_file, !config.broker_directory.empty()),
      renewals_(loop_, config, cancelled_.get()),
      hashing_(std::max(1U, std::thread::hardware_concurrency())),
      accounts_timer_(loop_),
      records_timer_(loop_) {}

broker_service::~broker_service() {
  hashing_.join();
}

std::string broker_service::open() {
  if (!cancelled_) return std::strerror(errno);
  if (access(config_.accounts_file.c_str(), R_OK) != 0 && errno != ENOENT)
    return config_.accounts_file + " cannot be used by the user that the broker runs as: " + std::strerror(errno);
  (void)cache_.refresh();
  accounts_warn_exposed(config_.accounts_file, *cache_.accounts());
  file_warn_exposed("client secret", config_.box_client_secret_file);
  if (config_.broker_encryption != store_encryption::none)
    file_warn_exposed("key of the broker's store", config_.broker_key_file);
  return renewals_.open();
}

void broker_service::run() {
  if (link_send(control_.native_handle(), note_encode({})) != 0) return;
  watch_control();
  renewals_.recover();
  every(accounts_timer_, ACCOUNTS_INTERVAL, &broker_service::look_at_accounts);
  if (!config_.broker_directory.empty())
    every(records_timer_, records_interval(config_), &broker_service::look_at_records);
  loop_.run();
  const std::uint64_t one = 1;
  (void)!write(cancelled_.get(), &one, sizeof one);
}

void broker_service::every(asio::steady_timer& timer, milliseconds interval, void (broker_service::*look)()) {
  timer.expires_after(interval);
  timer.async_wait([this, &timer, interval, look](const boost::system::error_code& error) {
    if (error) return;
    (this->*look)();
    every(timer, interval, look);
  });
}

void broker_service::watch_control() {
  control_.async_wait(asio::posix::descriptor_base::wait_read, [this](const boost::system::error_code& error) {
    if (!error) read_control();
  });
}

void broker_service::read_control() {
  for (;;) {
    link_received got = link_receive(control_.native_handle());
    if (got.error == EAGAIN || got.error == EWOULDBLOCK) return watch_control();
    if (got.error == ECONNRESET) return loop_.stop();
    auto note = got.error == 0 ? note_decode(got.frame) : std::nullopt;
    if (note && got.passed) adopt(std::move(*note), std::move(got.passed));
  }
}

/// A connection may come twice: from what the broker before had not read, and from the listener that hands all over
/// again. They are the same connection.
void broker_service::adopt(connection_note note, descriptor socket) {
  const auto line = std::make_shared<session_line>(loop_, note.id, socket.release());
  boost::system::error_code failure;
  line->address = asio::ip::make_address(note.address, failure);
  line->account = std::move(note.account);
  line->logged_in = note.logged_in;
  if (const auto known = lines_.find(note.id); known != lines_.end()) close_line(*known->second);
  lines_[note.id] = line;
  say(line, {.what = kind::ready});
  watch(line);
}

void broker_service::drop(const line_ptr& line) {
  const auto found = lines_.find(line->id);
  if (found != lines_.end() && found->second == line) lines_.erase(found);
  // The listener's copy would keep it open, and the session waiting.
  if (line->end.is_open()) shutdown(line->end.native_handle(), SHUT_RDWR);
  close_line(*line);
}

void broker_service::watch(const line_ptr& line) {
  line->end.async_wait(asio::posix::descriptor_base::wait_read, [this, line](const boost::system::error_code& error) {
    if (!error) read(line);
  });
}

/// Some messages; others have their turn after that.
void broker_service::read(const line_ptr& line) {
  for (unsigned i = 0; i < MESSAGES_PER_ROUND && line->end.is_open(); ++i) {
    link_received got = link_receive(line->end.native_handle());
    if (got.error == EAGAIN || got.error == EWOULDBLOCK) break;
    auto said = got.error == 0 ? session_message_decode(got.frame) : std::nullopt;
    wipe(got.frame);
    if (!said) return drop(line);
    take(line, std::move(*said));
  }
  if (line->end.is_open()) watch(line);
}

void broker_service::take(const line_ptr& line, session_says said) {
  using enum session_says::kind;
  if (said.what == login || said.what == creds || said.what == renew_creds) {
    // What was asked before this broker had said that it is ready is asked again after that.
    if (said.id <= line->last_question) return;
    line->last_question = said.id;
  }
  if (said.what == login) return begin_login(line, std::move(said));
  // All else is for who has logged in. Who asks nevertheless is no session of ours any more.
  if (!line->logged_in) return drop(line);
  switch (said.what) {
    case creds:
    case renew_creds:
      return give_credential(line, said);
    case used:
      if (said.generation == std::exchange(line->unused, 0)) renewals_.note_used(line->account, said.generation);
      return;
    case leave:
      line->logged_in = false;
      return tell_listener(*line);
    case login:
      return;
  }
}

/// A session that does not read what it is told is none.
void broker_service::say(const line_ptr& line, const broker_says& what) {
  if (!line->end.is_open()) return;
  const secret frame = message_encode(what);
  if (frame.text().empty() || link_send(line->end.native_handle(), frame.text()) != 0) drop(line);
}

void broker_service::tell_listener(const session_line& line) {
  const std::string note = note_encode({.id = line.id, .account = line.account, .logged_in = line.logged_in});
  // The listener reads without fail; where it is late this waits, since a binding that is not noted could be lost.
  while (link_send(control_.native_handle(), note) == EAGAIN) std::this_thread::sleep_for(milliseconds(1));
}

/// The hash is computed aside, since it takes its time on purpose.
void broker_service::begin_login(const line_ptr& line, session_says said) {
  if (line->busy || line->refusals >= REFUSALS_MAX) return drop(line);
  line->busy = true;
  (void)cache_.refresh();
  auto shared = std::make_shared<session_says>(std::move(said));
  asio::post(hashing_, [this, line, shared, accounts = cache_.accounts()] {
    const account* const found = shared->certificates.empty()
                                     ? accounts_authenticate(*accounts, shared->name, shared->password.text())
                                     : accounts_with_certificate(*accounts, shared->name, shared->certificates);
    const account_ptr who = found == nullptr ? nullptr : std::make_shared<account>(*found);
    asio::post(loop_, [this, line, who, id = shared->id, name = shared->name] { end_login(line, id, name, who); });
  });
}

/// The listener knows the binding before the session does, so that no broker to come can lose it.
void broker_service::end_login(const line_ptr& line, std::uint64_t id, const std::string& name,
                               const account_ptr& who) {
  line->busy = false;
  if (!line->end.is_open()) return;
  const bool known = cache_.readable() || cache_.find(name) != nullptr;
  const std::size_t others = who == nullptr ? 0 : sessions_of(who->name) - (line->logged_in ? 1 : 0);
  broker_says answer = login_judge(*line, who.get(), known, others);
  answer.id = id;
  if (answer.result == login_result::refused) ++line->refusals;
  if (answer.result == login_result::accepted) {
    line->account = who->name;
    line->logged_in = true;
    tell_listener(*line);
  }
  say(line, answer);
}

std::size_t broker_service::sessions_of(const std::string& account) const {
  return static_cast<std::size_t>(std::count_if(lines_.begin(), lines_.end(), [&](const auto& entry) {
    return entry.second->logged_in && entry.second->account == account;
  }));
}

void broker_service::give_credential(const line_ptr& line, const session_says& said) {
  const account* const of = cache_.find(line->account);
  if (of == nullptr) return say(line, credential_failure(said.id, 421, "The account was removed."));
  if (!of->credential.empty()) return give_file(line, said.id, *of, said.generation);
  if (said.generation != 0 && ++line->refused_tokens > REFUSED_TOKENS_MAX)
    return say(line, credential_failure(said.id, 530, "Box refuses the tokens of this account."));
  const bool alone = sessions_of(line->account) == 1;
  renewals_.want(line->account, said.generation, alone,
                 [this, line, id = said.id, of = *of](const auto& answer) { give_record(line, id, of, answer); });
}

void broker_service::give_record(const line_ptr& line, std::uint64_t id, const account& of,
                                 const renewal_answer& answer) {
  using verdict = renewal_answer::verdict;
  if (answer.how == verdict::good) {
    line->unused = answer.record->previous ? answer.record->generation : 0;
    credential_answer credential = credential_of_record(of, *answer.record);
    return say(line, {.what = kind::credential,
                      .id = id,
                      .credential = std::move(credential.document),
                      .generation = answer.record->generation});
  }
  if (answer.how == verdict::unavailable)
    return say(line, credential_failure(id, 421, "Box gives no token for this account now; try again later."));
  say(line, credential_failure(id, 530,
                               answer.how == verdict::sign_in_needed
                                   ? "This account has to be signed in to Box again; tell the server's operator."
                                   : "Box refuses the server's app; tell the server's operator."));
}

/// A file's tokens are not counted; what tells them apart stands for their generation.
void broker_service::give_file(const line_ptr& line, std::uint64_t id, const account& of, std::uint64_t refused) {
  credential_answer credential = credential_of_file(of);
  if (credential.code != 0) return say(line, credential_failure(id, credential.code, std::move(credential.text)));
  const std::uint64_t generation = token_mark(credential.access_token);
  if (refused == generation)
    return say(line, credential_failure(id, 530, "Box refuses the token of this account's credential file."));
  say(line,
      {.what = kind::credential, .id = id, .credential = std::move(credential.document), .generation = generation});
}

/// Sessions of accounts that nobody is served by any more are told to end.
void broker_service::look_at_accounts() {
  (void)cache_.refresh();
  const auto now = wall_clock();
  for (const auto& [id, line] : std::map(lines_)) {
    if (!line->logged_in) continue;
    const account* const of = cache_.find(line->account);
    const auto why = of == nullptr ? std::nullopt : account_closed(*of, now);
    if (of != nullptr && (!why || *why == account_closure::broken)) continue;
    const char* const text = of == nullptr ? "This account was removed." : login_closure_text(*why);
    log_info("account {}: a session is ended: {}", line->account, text);
    line->logged_in = false;
    tell_listener(*line);
    say(line, {.what = kind::end, .code = 421, .text = text});
  }
}

void broker_service::look_at_records() {
  renewals_.renew_idle([this](const std::string& name) { return sessions_of(name) > 0; });
}

}  // namespace tarvex::server
