#include "session_processes.h"

#include "base/log.h"
#include "confine/fresh_process.h"
#include "confine/session_places.h"
#include "ftp/reply.h"
#include "limits/account_seats.h"
#include "limits/address_group.h"
#include "limits/wrong_passwords.h"
#include "listening_socket.h"
#include "session_process.h"

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

namespace tarvex::server {

namespace {

/// Says 421 without waiting for a peer that does not read.
void say_421(const descriptor& control, const char* reason) {
  const std::string reply = reply_format(421, reason);
  (void)send(control.get(), reply.data(), reply.size(), MSG_DONTWAIT | MSG_NOSIGNAL);  // a courtesy; the end follows
  shutdown(control.get(), SHUT_WR);
}

/// Memory for an object whose empty state is all zeros, as the kernel's pages are: to construct it would take memory
/// for the parts that nobody touches. Null, with errno set, when there is none.
template <typename Shared>
Shared* map_shared() {
  void* const memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  return memory == MAP_FAILED ? nullptr : static_cast<Shared*>(memory);
}

void log_ended_broker(pid_t broker, int status) {
  if (WIFSIGNALED(status)) log_error("broker {} died of signal {}", broker, WTERMSIG(status));
  if (WIFEXITED(status)) log_debug("broker {} ended with status {}", broker, WEXITSTATUS(status));
}

}  // namespace

session_processes::session_processes(configuration config, storage_plugin& storage, broker_keeper& broker,
                                     const sigset_t& signal_mask)
    : config_(std::move(config)), storage_(storage), broker_(broker), signal_mask_(signal_mask) {}

std::string session_processes::open() {
  changes_.reset(map_shared<change_slots>());
  budget_.reset(map_shared<spool_budget>());
  limits_.reset(map_shared<shared_limits>());
  if (!changes_ || !budget_ || !limits_) return std::strerror(errno);
  budget_->memory_limit_bytes = config_.spool_memory_bytes;
  budget_->disk_limit_bytes = config_.spool_disk_bytes;
  budget_->window_limit_bytes = config_.window_bytes_total;
  if (getrandom(&limits_->salt, sizeof limits_->salt, 0) != sizeof limits_->salt) return std::strerror(errno);
  return sandbox_.prepare(config_.sandbox);
}

std::string session_processes::reload(configuration fresh) {
  if (fresh.sandbox != config_.sandbox) {
    sandbox prepared;
    if (std::string error = prepared.prepare(fresh.sandbox); !error.empty()) return error;
    sandbox_ = std::move(prepared);
  }
  config_ = std::move(fresh);
  broker_.renew(config_);
  return {};
}

/// The new process: keeps nothing of the listener but what a session needs, and never returns.
void session_processes::become_session(descriptor control, descriptor broker, pid_t parent, std::size_t share,
                                       bool implicit_tls) {
  close_others({control.get(), broker.get()});
  hide_memory();
  signal(SIGXFSZ, SIG_IGN);  // a file that may not grow is an error of its write
  signal(SIGINT, SIG_IGN);   // Ctrl-C reaches every process of the terminal; the listener tells the sessions
  signal(SIGHUP, SIG_IGN);   // the same of a terminal that is closed
  // Sessions end with the listener, also when it is killed.
  if (prctl(PR_SET_PDEATHSIG, SIGTERM) != 0 || getppid() != parent) _exit(1);
  sigprocmask(SIG_SETMASK, &signal_mask_, nullptr);
  read_nothing_from_stdin();
  const std::string error = sandbox_.enter(session_places(config_));
  if (!error.empty()) {
    log_error("{}", error);
    if (!implicit_tls) say_421(control, "Out of resources; try again later.");
    _exit(1);
  }
  _exit(session_run({.config = &config_,
                     .storage = &storage_,
                     .changes = changes_.get(),
                     .budget = budget_.get(),
                     .limits = limits_.get(),
                     .share = share,
                     .control_socket = control.release(),
                     .broker_socket = broker.release(),
                     .tls = tls_,
                     .implicit_tls = implicit_tls}));
}

/// \return no reason: the connection is counted, and has its place until `arrivals::leave`.
session_processes::refusal session_processes::admit(std::uint64_t group) {
  const auto now = std::chrono::steady_clock::now();
  const password_rules guessing = {config_.wrong_passwords, std::chrono::seconds(config_.wrong_passwords_window_s)};
  if (running_.size() >= config_.max_sessions) return {"Too many sessions; try again later.", "max_sessions"};
  if (wrong_passwords_used_up(*limits_, group, guessing, now))
    return {"Too many wrong passwords came from your address; try again later.", "wrong_passwords"};
  switch (arrivals_.admit(group, {config_.sessions_per_address, config_.connections_per_minute}, now)) {
    case arrivals::verdict::admitted:
      return {};
    case arrivals::verdict::too_many_sessions:
      return {"Too many sessions of your address; try again later.", "sessions_per_address"};
    case arrivals::verdict::too_often:
      return {"Too many connections of your address; try again in a minute.", "connections_per_minute"};
    case arrivals::verdict::uncounted:
      break;
  }
  return {"Too many addresses; try again later.", "too many addresses to count"};
}

/// The log gets a line a second at most: a flood is not to be one of lines as well. \return false
bool session_processes::turn_away(const descriptor& control, const refusal& why, const listen_address& peer,
                                  bool implicit_tls) {
  constexpr std::chrono::seconds LINE_INTERVAL{1};
  if (!implicit_tls) say_421(control, why.reply);
  const auto now = std::chrono::steady_clock::now();
  if (now - told_ < LINE_INTERVAL) {
    ++untold_;
    return false;
  }
  told_ = now;
  const std::string more = untold_ == 0 ? "" : " (and " + std::to_string(untold_) + " more since the last such line)";
  untold_ = 0;
  log_warning("connection of {} turned away: {}{}", listen_address_text(peer), why.reason, more);
  return false;
}

bool session_processes::start(descriptor control, bool implicit_tls) {
  const listen_address peer = socket_peer_address(control);
  const std::uint64_t group = address_group(peer.host);
  const refusal why = admit(group);
  if (why.reply != nullptr) return turn_away(control, why, peer, implicit_tls);
  const session_record record = {.share = take_share(), .group = group, .link = ++last_link_};
  descriptor link = broker_.connect(record.link, peer.host.to_string());
  const pid_t parent = getpid();
  const pid_t session = link ? fork() : -1;
  if (session == 0) become_session(std::move(control), std::move(link), parent, record.share, implicit_tls);
  if (session < 0) {
    const std::string error = std::string("cannot start a process: ") + std::strerror(errno);
    release(record);
    return turn_away(control, {"Out of resources; try again later.", error.c_str()}, peer, implicit_tls);
  }
  running_.emplace(session, record);
  log_debug("session {} started for {}", session, listen_address_text(peer));
  return true;
}

/// Never more shares than sessions run at once.
std::size_t session_processes::take_share() {
  if (free_shares_.empty()) return next_share_++;
  const std::size_t share = free_shares_.back();
  free_shares_.pop_back();
  return share;
}

/// Gives back what a session that is no more has left, however it ended.
void session_processes::release(const session_record& record) {
  budget_clear(*budget_, record.share);
  account_seat_give_back(*limits_, record.share);
  arrivals_.leave(record.group);
  broker_.forget(record.link);
  free_shares_.push_back(record.share);
}

void session_processes::reap() {
  int status = 0;
  for (pid_t ended = 0; (ended = waitpid(-1, &status, WNOHANG)) > 0;) {
    if (broker_.ended(ended)) {
      log_ended_broker(ended, status);
      continue;
    }
    const auto session = running_.find(ended);
    if (session == running_.end()) continue;
    release(session->second);
    running_.erase(session);
    if (WIFSIGNALED(status)) log_error("session {} died of signal {}", ended, WTERMSIG(status));
    if (WIFEXITED(status)) log_debug("session {} ended with status {}", ended, WEXITSTATUS(status));
  }
}

void session_processes::signal_all(int signal) const {
  for (const auto& [session, record] : running_) kill(session, signal);
}

void session_processes::wait_for_all() {
  for (const auto& [session, record] : running_) {
    while (waitpid(session, nullptr, 0) < 0 && errno == EINTR) {
    }
  }
  running_.clear();
}

}  // namespace tarvex::server
