// One thread and one poll: the listening sockets, and a signalfd that tells of ended sessions and of the wish to stop.
#include "listener.h"

#include "base/log.h"
#include "config/setting_text.h"
#include "ftp/reply.h"
#include "session_process.h"
#include "storage/change_counters.h"
#include "tarvex_common.hpp"

#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <unordered_set>
#include <utility>

namespace tarvex::server {

namespace {

using steady = std::chrono::steady_clock;

constexpr int BACKLOG = 1024;
constexpr int ACCEPTS_PER_ROUND = 64;  ///< before signals are looked at again
constexpr std::chrono::milliseconds ACCEPT_PAUSE{100};
constexpr std::chrono::seconds STOP_TIMEOUT{10};

struct unmap_counters {
  void operator()(change_counters* counters) const noexcept { munmap(counters, sizeof *counters); }
};

using address_list = std::unique_ptr<addrinfo, releaser<freeaddrinfo>>;

struct listener {
  const configuration* config = nullptr;
  storage_plugin* storage = nullptr;
  std::unique_ptr<change_counters, unmap_counters> changes;
  std::vector<descriptor> sockets;
  descriptor signals;
  sigset_t mask_before = {};
  std::unordered_set<pid_t> sessions;
  steady::time_point accept_again;  ///< after a lack of descriptors or memory
  bool stopping = false;
};

/// \return the error as text; empty when the socket listens.
std::string open_socket(const listen_address& address, descriptor& out) {
  addrinfo hints = {};
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | AI_PASSIVE;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const int failure = getaddrinfo(address.host.c_str(), std::to_string(address.port).c_str(), &hints, &found);
  if (failure != 0) return gai_strerror(failure);
  const address_list addresses(found);
  out = descriptor(socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const int on = 1;
  const bool ready =
      out.get() >= 0 && setsockopt(out.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0 &&
      (found->ai_family != AF_INET6 || setsockopt(out.get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on) == 0) &&
      bind(out.get(), found->ai_addr, found->ai_addrlen) == 0 && listen(out.get(), BACKLOG) == 0;
  return ready ? "" : std::strerror(errno);
}

/// "HOST:PORT" of a peer or of an own socket, numeric.
template <auto query>
listen_address address_of(int fd) {
  sockaddr_storage address = {};
  socklen_t size = sizeof address;
  char host[NI_MAXHOST] = "?";
  char port[NI_MAXSERV] = "0";
  if (query(fd, reinterpret_cast<sockaddr*>(&address), &size) == 0) {
    (void)getnameinfo(reinterpret_cast<sockaddr*>(&address), size, host, sizeof host, port, sizeof port,
                      NI_NUMERICHOST | NI_NUMERICSERV);  // numeric forms do not fail for these families
  }
  return {host, static_cast<std::uint16_t>(std::strtoul(port, nullptr, 10))};
}

bool open_sockets(listener& self) {
  for (const listen_address& address : self.config->listen) {
    descriptor opened;
    const std::string error = open_socket(address, opened);
    if (!error.empty()) {
      log_error("cannot listen on {}: {}", listen_address_text(address), error);
      return false;
    }
    self.sockets.push_back(std::move(opened));
  }
  return true;
}

void announce(const listener& self) {
  for (const descriptor& opened : self.sockets) {
    std::printf("listening on %s\n", listen_address_text(address_of<getsockname>(opened.get())).c_str());
  }
  std::fflush(stdout);
}

bool open_signals(listener& self) {
  sigset_t awaited;
  sigemptyset(&awaited);
  for (const int signal : {SIGTERM, SIGINT, SIGCHLD}) sigaddset(&awaited, signal);
  if (sigprocmask(SIG_BLOCK, &awaited, &self.mask_before) != 0) return false;
  self.signals = descriptor(signalfd(-1, &awaited, SFD_CLOEXEC | SFD_NONBLOCK));
  return self.signals.get() >= 0;
}

bool open_counters(listener& self) {
  void* const memory =
      mmap(nullptr, sizeof(change_counters), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) return false;
  self.changes.reset(new (memory) change_counters{});
  return true;
}

/// The new process: keeps nothing of the listener but what a session needs, and never returns.
[[noreturn]] void become_session(listener& self, descriptor control, pid_t parent) {
  self.sockets.clear();
  self.signals = descriptor();
  signal(SIGPIPE, SIG_DFL);
  // Sessions end with the listener, also when it is killed.
  if (prctl(PR_SET_PDEATHSIG, SIGTERM) != 0 || getppid() != parent) _exit(1);
  sigprocmask(SIG_SETMASK, &self.mask_before, nullptr);
  const descriptor nothing(open("/dev/null", O_RDONLY | O_CLOEXEC));
  if (nothing.get() >= 0) dup2(nothing.get(), STDIN_FILENO);
  _exit(session_run({.config = self.config,
                     .storage = self.storage,
                     .changes = self.changes.get(),
                     .control_socket = control.release()}));
}

/// Says 421 without waiting for a peer that does not read.
void turn_away(const descriptor& control, const char* reason) {
  const std::string reply = reply_format(421, reason);
  (void)send(control.get(), reply.data(), reply.size(), MSG_DONTWAIT | MSG_NOSIGNAL);  // a courtesy; the end follows
  shutdown(control.get(), SHUT_WR);
}

void start_session(listener& self, descriptor control) {
  const std::string peer = listen_address_text(address_of<getpeername>(control.get()));
  if (self.sessions.size() >= self.config->max_sessions) {
    log_warning("connection of {} turned away: max_sessions ({}) are running", peer, self.config->max_sessions);
    return turn_away(control, "Too many sessions; try again later.");
  }
  const pid_t parent = getpid();
  const pid_t session = fork();
  if (session == 0) become_session(self, std::move(control), parent);
  if (session < 0) {
    log_error("connection of {} turned away: cannot start a process: {}", peer, std::strerror(errno));
    return turn_away(control, "Out of resources; try again later.");
  }
  self.sessions.insert(session);
  log_debug("session {} started for {}", session, peer);
}

/// What accept reports of a connection that ended before it was taken (accept(2) lists the network's errors too).
bool is_peers_error(int error) {
  for (const int known : {ECONNABORTED, EINTR, EPROTO, ENETDOWN, ENOPROTOOPT, EHOSTDOWN, ENONET, EHOSTUNREACH,
                          EOPNOTSUPP, ENETUNREACH, EPERM}) {
    if (error == known) return true;
  }
  return false;
}

void accept_some(listener& self, const descriptor& socket) {
  for (int i = 0; i < ACCEPTS_PER_ROUND; ++i) {
    descriptor control(accept4(socket.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (control.get() >= 0) {
      start_session(self, std::move(control));
      continue;
    }
    const int error = errno;
    if (is_peers_error(error)) continue;
    if (error != EAGAIN && error != EWOULDBLOCK) {
      log_error("cannot accept connections for now: {}", std::strerror(error));
      self.accept_again = steady::now() + ACCEPT_PAUSE;
    }
    return;
  }
}

void reap_sessions(listener& self) {
  int status = 0;
  for (pid_t ended = 0; (ended = waitpid(-1, &status, WNOHANG)) > 0;) {
    if (self.sessions.erase(ended) == 0) continue;
    const int pid = static_cast<int>(ended);
    if (WIFSIGNALED(status)) log_error("session {} died of signal {}", pid, WTERMSIG(status));
    if (WIFEXITED(status)) log_debug("session {} ended with status {}", pid, WEXITSTATUS(status));
  }
}

void signal_sessions(const listener& self, int signal) {
  for (const pid_t session : self.sessions) kill(session, signal);
}

/// A second wish to stop ends the patience with sessions that take their time.
void take_stop_signal(listener& self, unsigned signal) {
  if (self.stopping) return signal_sessions(self, SIGKILL);
  log_info("stopping on signal {}: {} sessions are told to end", signal, self.sessions.size());
  self.stopping = true;
}

void read_signals(listener& self) {
  signalfd_siginfo info = {};
  while (read(self.signals.get(), &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
    if (info.ssi_signo != SIGCHLD) take_stop_signal(self, info.ssi_signo);
  }
  reap_sessions(self);
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
  signal_sessions(self, SIGTERM);
  const steady::time_point deadline = steady::now() + STOP_TIMEOUT;
  while (!self.sessions.empty() && steady::now() < deadline) {
    pollfd awaited = {self.signals.get(), POLLIN, 0};
    if (poll(&awaited, 1, milliseconds_until(deadline)) > 0) read_signals(self);
  }
  if (self.sessions.empty()) return;
  log_warning("{} sessions did not end in time and are killed", self.sessions.size());
  signal_sessions(self, SIGKILL);
  for (const pid_t session : self.sessions) {
    while (waitpid(session, nullptr, 0) < 0 && errno == EINTR) {
    }
  }
}

}  // namespace

int listener_run(const configuration& config, storage_plugin& storage) {
  listener self;
  self.config = &config;
  self.storage = &storage;
  if (!open_sockets(self)) return 1;
  if (!open_signals(self) || !open_counters(self)) {
    log_error("cannot start: {}", std::strerror(errno));
    return 1;
  }
  signal(SIGPIPE, SIG_IGN);
  if (!config.tls_certificate.empty())
    log_warning("[tls] is set, but TLS is not offered yet: logins are in plain text");
  announce(self);
  serve(self);
  end_sessions(self);
  log_info("stopped");
  return 0;
}

}  // namespace tarvex::server
