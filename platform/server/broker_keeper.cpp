#include "broker_keeper.h"

#include "base/log.h"
#include "base/number.h"
#include "broker/broker_user.h"
#include "broker_process.h"
#include "confine/fresh_process.h"
#include "link/channel.h"

#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <tuple>
#include <utility>

namespace tarvex::server {

namespace {

using steady = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds READY_LIMIT{30'000};
constexpr milliseconds STARTER_LIMIT{5'000};
constexpr milliseconds RESTART_PAUSE{1'000};  ///< after a broker that ended as soon as it had begun
constexpr milliseconds HAND_PAUSE{10};        ///< for a broker that has not read yet what it was handed
constexpr const char* STARTER_NAME = "tarvex-starter";

bool keeper_wait_readable(int fd, milliseconds limit) {
  pollfd awaited = {fd, POLLIN, 0};
  int count = -1;
  do {
    count = poll(&awaited, 1, static_cast<int>(limit.count()));
  } while (count < 0 && errno == EINTR);
  return count > 0;
}

/// What the broker goes by.
auto settings_of_broker(const configuration& c) {
  return std::tie(c.accounts_file, c.box_ca_file, c.box_proxy, c.box_token_url, c.box_revoke_url, c.box_client_id,
                  c.box_client_secret_file, c.broker_directory, c.broker_key_file, c.broker_encryption, c.broker_user,
                  c.broker_idle_renewal_s);
}

/// As fork(2), with this process's parent as the parent of the new one.
pid_t fork_for_parent() {
  return static_cast<pid_t>(syscall(SYS_clone, CLONE_PARENT | SIGCHLD, nullptr, nullptr, nullptr, nullptr));
}

/// What stays root, and does nothing else than to start brokers, which are the listener's children.
[[noreturn]] void starter_run(const std::string& file, const configuration& config, const descriptor& requests) {
  (void)prctl(PR_SET_NAME, STARTER_NAME);
  close_others({requests.get()});
  hide_memory();
  read_nothing_from_stdin();
  for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGPIPE}) std::signal(signal, SIG_IGN);
  for (;;) {
    if (!keeper_wait_readable(requests.get(), milliseconds(-1))) continue;
    link_received request = link_receive(requests.get());
    if (request.error != 0) _exit(0);
    if (!request.passed) continue;
    const pid_t broker = fork_for_parent();
    if (broker == 0) broker_process_run(file, config, std::move(request.passed));
    (void)link_send(requests.get(), std::to_string(broker));
  }
}

}  // namespace

broker_keeper::~broker_keeper() {
  control_ = descriptor();
  starter_ = descriptor();
  if (broker_ > 0) (void)waitpid(broker_, nullptr, 0);
}

/// Only where the listener gives up what it would take to give the next broker a user of its own.
void broker_keeper::start_starter() {
  if (geteuid() != 0 || broker_user(config_) == config_.user) return;
  auto [mine, its] = link_pair();
  if (!mine) return;
  const pid_t starter = fork();
  if (starter == 0) starter_run(file_, config_, its);
  if (starter > 0) starter_ = std::move(mine);
}

pid_t broker_keeper::start_broker() {
  auto [mine, its] = link_pair();
  if (!mine) return -1;
  pid_t broker = -1;
  if (!starter_) {
    broker = fork();
    if (broker == 0) broker_process_run(file_, config_, std::move(its));
  } else if (link_send(starter_.get(), "start", its.get()) == 0 &&
             keeper_wait_readable(starter_.get(), STARTER_LIMIT)) {
    broker = parse_number<pid_t>(link_receive(starter_.get()).frame).value_or(-1);
  }
  if (broker > 0) control_ = std::move(mine);
  return broker;
}

/// \return what went wrong; empty: there is a process, which is to say that it is ready.
std::string broker_keeper::launch() {
  ready_ = false;
  due_ = steady::time_point::max();
  for (auto& [id, kept] : connections_) kept.handed = false;
  broker_ = start_broker();
  started_ = steady::now();
  if (broker_ > 0) return {};
  due_ = started_ + RESTART_PAUSE;
  return std::string("the broker's process cannot be started: ") + std::strerror(errno);
}

std::string broker_keeper::wait_until_ready() {
  const auto end = steady::now() + READY_LIMIT;
  while (!ready_ && start_error_.empty()) {
    const auto left = std::chrono::ceil<milliseconds>(end - steady::now());
    if (left.count() <= 0 || !control_ || !keeper_wait_readable(control_.get(), left))
      return "the broker did not get ready";
    listen();
  }
  return start_error_;
}

std::string broker_keeper::start(const std::string& file, const configuration& config) {
  file_ = file;
  config_ = config;
  start_starter();
  if (std::string error = launch(); !error.empty()) return error;
  std::string error = wait_until_ready();
  started_once_ = error.empty();
  return error;
}

/// The broker ends with the connection to it; `ended` starts the next. One that has no reason to end knows the accounts
/// as they were before a mistake got into their file.
void broker_keeper::renew(const configuration& config) {
  const bool differs = settings_of_broker(config) != settings_of_broker(config_);
  config_ = config;
  if (!differs) return;
  control_ = descriptor();
  ready_ = false;
  started_ = {};
}

bool broker_keeper::hand(kept_connection& kept) {
  kept.handed = link_send(control_.get(), note_encode(kept.note), kept.broker_end.get()) == 0;
  if (!kept.handed) due_ = std::min(due_, steady::now() + HAND_PAUSE);
  return kept.handed;
}

void broker_keeper::hand_all() {
  for (auto& [id, kept] : connections_)
    if (!kept.handed && !hand(kept)) return;
}

descriptor broker_keeper::connect(std::uint64_t id, const std::string& address) {
  auto [session_end, broker_end] = link_pair();
  if (!session_end) return descriptor();
  kept_connection& kept = connections_[id];
  kept = {std::move(broker_end), {.id = id, .address = address}, false};
  if (ready_) (void)hand(kept);
  return std::move(session_end);
}

void broker_keeper::forget(std::uint64_t id) {
  connections_.erase(id);
}

void broker_keeper::listen() {
  while (control_) {
    const link_received got = link_receive(control_.get());
    if (got.error == EAGAIN || got.error == EWOULDBLOCK) return;
    if (got.error == ECONNRESET) control_ = descriptor();
    const auto note = got.error == 0 ? note_decode(got.frame) : std::nullopt;
    if (!note) continue;
    if (note->id == 0) {
      start_error_ = note->error;
      ready_ = note->error.empty();
      if (!ready_ && started_once_) log_error("the broker: {}", note->error);
      if (ready_) hand_all();
    } else if (const auto kept = connections_.find(note->id); kept != connections_.end()) {
      kept->second.note.account = note->account;
      kept->second.note.logged_in = note->logged_in;
    }
  }
}

bool broker_keeper::ended(pid_t process) {
  if (process != broker_) return false;
  listen();  // what it has said at last
  control_ = descriptor();
  broker_ = -1;
  ready_ = false;
  due_ = std::max(steady::now(), started_ + RESTART_PAUSE);
  return true;
}

void broker_keeper::mend() {
  if (steady::now() < due_) return;
  due_ = steady::time_point::max();
  if (broker_ > 0) {
    if (ready_) hand_all();
    return;
  }
  log_info("the broker is started again");
  if (const std::string error = launch(); !error.empty()) log_error("{}", error);
}

}  // namespace tarvex::server
