// One thread and one poll: the listening sockets, and a signalfd that tells of ended sessions and of the wish to stop.
#include "listener.h"

#include "base/log.h"
#include "listening_socket.h"
#include "net/tls_identity.h"
#include "session_processes.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <utility>
#include <vector>

namespace tarvex::server {

namespace {

using steady = std::chrono::steady_clock;

constexpr int ACCEPTS_PER_ROUND = 64;  ///< before signals are looked at again
constexpr std::chrono::milliseconds ACCEPT_PAUSE{100};
constexpr std::chrono::seconds STOP_TIMEOUT{10};

struct listener {
  session_processes sessions;
  std::vector<descriptor> sockets;
  descriptor signals;
  steady::time_point accept_again = {};  ///< after a lack of descriptors or memory
  bool stopping = false;
};

/// All addresses or none: a server that misses one of them would look as if it ran.
bool open_sockets(const std::vector<listen_address>& addresses, std::vector<descriptor>& out) {
  for (const listen_address& address : addresses) {
    const std::string error = listening_socket_open(address, out.emplace_back());
    if (error.empty()) continue;
    log_error("cannot listen on {}: {}", listen_address_text(address), error);
    return false;
  }
  return true;
}

void announce(const std::vector<descriptor>& sockets) {
  for (const descriptor& opened : sockets) {
    std::printf("listening on %s\n", listen_address_text(socket_local_address(opened)).c_str());
  }
  std::fflush(stdout);
}

/// \param mask_before  the signal mask that was in force
descriptor open_signals(sigset_t& mask_before) {
  sigset_t awaited;
  sigemptyset(&awaited);
  for (const int signal : {SIGTERM, SIGINT, SIGCHLD}) sigaddset(&awaited, signal);
  if (sigprocmask(SIG_BLOCK, &awaited, &mask_before) != 0) return descriptor();
  return descriptor(signalfd(-1, &awaited, SFD_CLOEXEC | SFD_NONBLOCK));
}

void accept_some(listener& self, const descriptor& socket) {
  for (int i = 0; i < ACCEPTS_PER_ROUND; ++i) {
    descriptor control(accept4(socket.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (control) {
      self.sessions.start(std::move(control));
      continue;
    }
    const int error = errno;
    if (accept_error_is_peers(error)) continue;
    if (error != EAGAIN && error != EWOULDBLOCK) {
      log_error("cannot accept connections for now: {}", std::strerror(error));
      self.accept_again = steady::now() + ACCEPT_PAUSE;
    }
    return;
  }
}

/// A second wish to stop ends the patience with sessions that take their time.
void take_stop_signal(listener& self, unsigned signal) {
  if (self.stopping) return self.sessions.signal_all(SIGKILL);
  log_info("stopping on signal {}: {} sessions are told to end", signal, self.sessions.count());
  self.stopping = true;
}

void read_signals(listener& self) {
  signalfd_siginfo info = {};
  while (read(self.signals.get(), &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
    if (info.ssi_signo != SIGCHLD) take_stop_signal(self, info.ssi_signo);
  }
  self.sessions.reap();
}

int milliseconds_until(steady::time_point when) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(when - steady::now()).count();
  return left < 0 ? 0 : static_cast<int>(left);
}

void serve(listener& self) {
  while (!self.stopping) {
    const bool accepting = steady::now() >= self.accept_again;
    std::vector<pollfd> awaited = {{self.signals.get(), POLLIN, 0}};
    for (const descriptor& socket : self.sockets) {
      if (accepting) awaited.push_back({socket.get(), POLLIN, 0});
    }
    if (poll(awaited.data(), awaited.size(), accepting ? -1 : milliseconds_until(self.accept_again)) <= 0) continue;
    if (awaited.front().revents != 0) read_signals(self);
    for (std::size_t i = 1; i < awaited.size() && !self.stopping; ++i) {
      if (awaited[i].revents != 0) accept_some(self, self.sockets[i - 1]);
    }
  }
}

void end_sessions(listener& self) {
  self.sockets.clear();
  self.sessions.signal_all(SIGTERM);
  const steady::time_point deadline = steady::now() + STOP_TIMEOUT;
  while (self.sessions.count() > 0 && steady::now() < deadline) {
    pollfd awaited = {self.signals.get(), POLLIN, 0};
    if (poll(&awaited, 1, milliseconds_until(deadline)) > 0) read_signals(self);
  }
  if (self.sessions.count() == 0) return;
  log_warning("{} sessions did not end in time and are killed", self.sessions.count());
  self.sessions.signal_all(SIGKILL);
  self.sessions.wait_for_all();
}

}  // namespace

int listener_run(const configuration& config, storage_plugin& storage) {
  tls_identity_answer tls = tls_identity_load(config);
  if (!tls.error.empty()) {
    log_error("[tls]: {}", tls.error);
    return 1;
  }
  if (tls.identity) tls_identity_log_expiry(*tls.identity, true);
  std::vector<descriptor> sockets;
  if (!open_sockets(config.listen, sockets)) return 1;
  sigset_t session_mask = {};
  descriptor signals = open_signals(session_mask);
  listener self{.sessions = session_processes(config, storage, session_mask),
                .sockets = std::move(sockets),
                .signals = std::move(signals)};
  if (!self.signals || !self.sessions.open()) {
    log_error("cannot start: {}", std::strerror(errno));
    return 1;
  }
  self.sessions.use_tls(std::move(tls.identity));
  announce(self.sockets);
  serve(self);
  end_sessions(self);
  log_info("stopped");
  return 0;
}

}  // namespace tarvex::server
