// One thread and one poll: the listening sockets, and a signalfd that tells of ended sessions and of the wish to stop
// or to read the configuration again.
#include "listener.h"

#include "base/log.h"
#include "broker_keeper.h"
#include "broker_process.h"
#include "config/box_check.h"
#include "configuration_check.h"
#include "confine/privileges.h"
#include "listening_doors.h"
#include "listening_socket.h"
#include "net/tls_identity.h"
#include "reload.h"
#include "service_manager.h"
#include "session_processes.h"

#include <poll.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <utility>
#include <vector>

namespace tarvex::server {

namespace {

using steady = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr int ACCEPTS_PER_ROUND = 64;  ///< before signals are looked at again
constexpr milliseconds ACCEPT_PAUSE{100};
/// A connection that is turned away costs some ten microseconds. As many in a round, and then a pause: a flood of them
/// takes no more than some hundredths of a processor from those who are served.
constexpr int REFUSALS_PER_ROUND = 32;
constexpr milliseconds REFUSAL_PAUSE{10};
constexpr std::chrono::seconds STOP_MARGIN{10};  ///< beyond the grace, for sessions that undo what they left half done

struct listener {
  std::string file;
  broker_keeper& broker;
  session_processes sessions;
  std::vector<listening_door> doors;
  descriptor signals;
  milliseconds watchdog;
  steady::time_point accept_again = {};  ///< after a lack of descriptors or memory, or a flood
  steady::time_point alive_again = {};
  bool stopping = false;
};

/// \param mask_before  the signal mask that was in force
descriptor open_signals(sigset_t& mask_before) {
  sigset_t awaited;
  sigemptyset(&awaited);
  for (const int signal : {SIGTERM, SIGINT, SIGCHLD, SIGHUP}) sigaddset(&awaited, signal);
  if (sigprocmask(SIG_BLOCK, &awaited, &mask_before) != 0) return descriptor();
  return descriptor(signalfd(-1, &awaited, SFD_CLOEXEC | SFD_NONBLOCK));
}

void accept_some(listener& self, const listening_door& door) {
  int refusals = 0;
  for (int i = 0; i < ACCEPTS_PER_ROUND && refusals < REFUSALS_PER_ROUND; ++i) {
    descriptor control(accept4(door.socket.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (control) {
      if (!self.sessions.start(std::move(control), door.implicit_tls)) ++refusals;
      continue;
    }
    const int error = errno;
    if (accept_error_is_peers(error)) continue;
    if (error == EAGAIN || error == EWOULDBLOCK) return;
    log_error("cannot accept connections for now: {}", std::strerror(error));
    self.accept_again = steady::now() + ACCEPT_PAUSE;
    return;
  }
  if (refusals == REFUSALS_PER_ROUND) self.accept_again = steady::now() + REFUSAL_PAUSE;
}

/// Certificate and key may have been renewed. A pair that cannot be used leaves the one before in force.
void renew_identity(listener& self) {
  const tls_identity_answer tls = tls_identity_load(self.sessions.config());
  if (!tls.error.empty()) return log_error("[tls]: {}; certificate and key stay as they were", tls.error);
  if (tls.identity) tls_identity_log_expiry(*tls.identity, false);
  self.sessions.use_tls(tls.identity);
}

/// \return whether the configuration can be used
bool log_findings(const configuration_findings& found) {
  for (const auto& mistake : found.mistakes) log_error("{}", mistake_text(mistake));
  for (const auto& mistake : found.account_mistakes) log_error("{}", mistake_text(mistake));
  return found.mistakes.empty();
}

/// A file with a mistake in it changes nothing.
void reload(listener& self) {
  service_reloading();
  configuration fresh;
  const bool good = configuration_check_apart(self.file, log_findings) && configuration_load(self.file, fresh).empty();
  const std::vector<std::string> kept = keep_until_restart(self.sessions.config(), fresh);
  const std::string error = good ? self.sessions.reload(std::move(fresh)) : "see above";
  if (!error.empty()) {
    log_error("{}: nothing is changed: {}", self.file, error);
  } else {
    for (const std::string& key : kept) log_warning("{}: {} has changed; that takes a restart", self.file, key);
    renew_identity(self);
    log_info("{} is read again; it counts for sessions from now on", self.file);
  }
  service_ready();
}

/// A second wish to stop ends the patience with sessions that take their time.
void take_stop_signal(listener& self, unsigned signal) {
  if (self.stopping) return self.sessions.signal_all(SIGKILL);
  log_info("stopping on signal {}: {} sessions are told to end", signal, self.sessions.count());
  self.stopping = true;
}

void read_signals(listener& self) {
  signalfd_siginfo info = {};
  bool again = false;
  while (read(self.signals.get(), &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
    if (info.ssi_signo == SIGHUP) again = true;
    if (info.ssi_signo == SIGTERM || info.ssi_signo == SIGINT) take_stop_signal(self, info.ssi_signo);
  }
  self.sessions.reap();
  if (again && !self.stopping) reload(self);
}

int milliseconds_until(steady::time_point when) {
  const auto left = std::chrono::ceil<milliseconds>(when - steady::now()).count();
  return static_cast<int>(std::clamp<milliseconds::rep>(left, 0, 3'600'000));
}

/// Waits for signals and connections until `when`, with a sign of life in between.
void wait_and_act(listener& self, steady::time_point when) {
  std::vector<pollfd> awaited = {{self.signals.get(), POLLIN, 0}, {self.broker.notes(), POLLIN, 0}};
  const std::size_t doors_begin = awaited.size();
  const bool accepting = steady::now() >= self.accept_again;
  for (const listening_door& door : self.doors) {
    if (accepting) awaited.push_back({door.socket.get(), POLLIN, 0});
  }
  if (!accepting) when = std::min(when, self.accept_again);
  if (self.watchdog.count() > 0) {
    if (steady::now() >= self.alive_again) {
      service_alive();
      self.alive_again = steady::now() + self.watchdog;
    }
    when = std::min(when, self.alive_again);
  }
  when = std::min(when, self.broker.due());
  const int events = poll(awaited.data(), awaited.size(), milliseconds_until(when));
  self.broker.mend();
  if (events <= 0) return;
  if (awaited[0].revents != 0) read_signals(self);
  if (awaited[1].revents != 0) self.broker.listen();
  for (std::size_t i = doors_begin; i < awaited.size() && !self.stopping; ++i) {
    if (awaited[i].revents != 0) accept_some(self, self.doors[i - doors_begin]);
  }
}

void end_sessions(listener& self) {
  service_stopping();
  self.doors.clear();  // closed, and not shut down: the service manager may hold them for the next one
  self.sessions.signal_all(SIGTERM);
  const steady::time_point deadline =
      steady::now() + std::chrono::seconds(self.sessions.config().grace_time_s) + STOP_MARGIN;
  while (self.sessions.count() > 0 && steady::now() < deadline) wait_and_act(self, deadline);
  if (self.sessions.count() == 0) return;
  log_warning("{} sessions did not end in time and are killed", self.sessions.count());
  self.sessions.signal_all(SIGKILL);
  self.sessions.wait_for_all();
}

/// What the user that the program has become cannot use of what the configuration names; empty: it can use all.
std::string beyond_reach(const configuration& config) {
  struct named {
    const std::string& path;
    int mode;
  };
  for (const named& file : {named{config.box_ca_file, R_OK}, named{config.spool_directory, W_OK | X_OK}}) {
    if (file.path.empty() || access(file.path.c_str(), file.mode) == 0) continue;
    return file.path + " cannot be used by the user that the program runs as: " + std::strerror(errno);
  }
  return {};
}

/// What remains to be done once the addresses are taken. \return what went wrong; empty: nothing.
std::string settle(const configuration& config) {
  if (std::string error = privileges_give_up(config.user); !error.empty()) return error;
  if (std::string error = beyond_reach(config); !error.empty()) return error;
  // Here, since sessions are confined to folders that exist. Where it cannot be made the warning below says so.
  if (const std::string folder = box_folder(); config.storage_dsi == "box" && !folder.empty())
    (void)mkdir(folder.c_str(), 0700);
  if (const std::string warning = box_pacing_warning(config); !warning.empty()) log_warning("{}", warning);
  return {};
}

/// Each session takes a descriptor here and one of the broker's. The soft limit is there for programs that use
/// select(2).
void take_all_descriptors() {
  rlimit limit = {};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == limit.rlim_max) return;
  limit.rlim_cur = limit.rlim_max;
  if (setrlimit(RLIMIT_NOFILE, &limit) != 0)
    log_warning("the limit of descriptors stays low: {}", std::strerror(errno));
}

int refuse_to_start(const std::string& error) {
  log_error("cannot start: {}", error);
  return 1;
}

}  // namespace

int listener_run(const std::string& file, const configuration& config, storage_plugin& storage) {
  std::vector<listening_door> doors;
  if (const std::string error = listening_doors_open(config, doors); !error.empty()) {
    log_write(log_level::error, error);
    return 1;
  }
  const tls_identity_answer tls = tls_identity_load(config);  // the key may be root's
  if (!tls.error.empty()) return refuse_to_start("[tls]: " + tls.error);
  if (tls.identity) tls_identity_log_expiry(*tls.identity, true);
  take_all_descriptors();
  std::string warning = {};
  if (const std::string error = broker_apart(config, warning); !error.empty()) return refuse_to_start(error);
  if (!warning.empty()) log_warning("{}", warning);
  broker_keeper broker;
  if (const std::string error = broker.start(file, config); !error.empty()) return refuse_to_start(error);
  if (const std::string error = settle(config); !error.empty()) return refuse_to_start(error);
  sigset_t session_mask = {};
  descriptor signals = open_signals(session_mask);
  if (!signals) return refuse_to_start(std::strerror(errno));
  listener self{.file = file,
                .broker = broker,
                .sessions = session_processes(config, storage, broker, session_mask),
                .doors = std::move(doors),
                .signals = std::move(signals),
                .watchdog = service_watchdog_interval()};
  if (const std::string error = self.sessions.open(); !error.empty()) return refuse_to_start(error);
  self.sessions.use_tls(tls.identity);
  listening_doors_announce(self.doors);
  service_ready();
  while (!self.stopping) wait_and_act(self, steady::now() + std::chrono::hours(1));
  end_sessions(self);
  log_info("stopped");
  return 0;
}

}  // namespace tarvex::server
