#include "session_processes.h"

#include "base/log.h"
#include "ftp/reply.h"
#include "listening_socket.h"
#include "session_process.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
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
void turn_away(const descriptor& control, const char* reason) {
  const std::string reply = reply_format(421, reason);
  (void)send(control.get(), reply.data(), reply.size(), MSG_DONTWAIT | MSG_NOSIGNAL);  // a courtesy; the end follows
  shutdown(control.get(), SHUT_WR);
}

/// Closes every descriptor above standard error but one: the listener's own, and what the program was started with.
/// Were one left open, its other end would take the session for whoever opened it.
void close_others(int kept) {
  const auto number = static_cast<unsigned>(kept);
  if (number > STDERR_FILENO + 1U) (void)close_range(STDERR_FILENO + 1U, number - 1, 0);
  (void)close_range(number + 1, ~0U, 0);
}

/// Sessions hold passwords and tokens: no core dump gets them, and no other process of the same user may look.
void hide_memory() {
  constexpr rlimit NONE = {0, 0};
  (void)setrlimit(RLIMIT_CORE, &NONE);
  (void)prctl(PR_SET_DUMPABLE, 0);
}

void read_nothing_from_stdin() {
  const descriptor nothing(open("/dev/null", O_RDONLY | O_CLOEXEC));
  if (nothing) dup2(nothing.get(), STDIN_FILENO);
}

}  // namespace

namespace {

/// Memory for an object whose empty state is all zeros, as the kernel's pages are: to construct it would take memory
/// for the parts that nobody touches. Null, with errno set, when there is none.
template <typename Shared>
Shared* map_shared() {
  void* const memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  return memory == MAP_FAILED ? nullptr : static_cast<Shared*>(memory);
}

}  // namespace

session_processes::session_processes(const configuration& config, storage_plugin& storage, const sigset_t& signal_mask)
    : config_(config), accounts_(config.accounts_file), storage_(storage), signal_mask_(signal_mask) {}

bool session_processes::open() {
  changes_.reset(map_shared<change_slots>());
  budget_.reset(map_shared<spool_budget>());
  if (!changes_ || !budget_) return false;
  budget_->memory_limit_bytes = config_.spool_memory_bytes;
  budget_->disk_limit_bytes = config_.spool_disk_bytes;
  budget_->window_limit_bytes = config_.window_bytes_total;
  return true;
}

/// The new process: keeps nothing of the listener but what a session needs, and never returns.
void session_processes::become_session(descriptor control, pid_t parent, std::size_t share) {
  close_others(control.get());
  hide_memory();
  signal(SIGXFSZ, SIG_IGN);  // a file that may not grow is an error of its write
  signal(SIGINT, SIG_IGN);   // Ctrl-C reaches every process of the terminal; the listener tells the sessions
  // Sessions end with the listener, also when it is killed.
  if (prctl(PR_SET_PDEATHSIG, SIGTERM) != 0 || getppid() != parent) _exit(1);
  sigprocmask(SIG_SETMASK, &signal_mask_, nullptr);
  read_nothing_from_stdin();
  _exit(session_run({.config = &config_,
                     .accounts = &accounts_,
                     .storage = &storage_,
                     .changes = changes_.get(),
                     .budget = budget_.get(),
                     .budget_share = share,
                     .control_socket = control.release()}));
}

void session_processes::start(descriptor control) {
  const std::string peer = listen_address_text(socket_peer_address(control));
  if (running_.size() >= config_.max_sessions) {
    log_warning("connection of {} turned away: max_sessions ({}) are running", peer, config_.max_sessions);
    return turn_away(control, "Too many sessions; try again later.");
  }
  accounts_.refresh();  // here once, and not in each session
  const std::size_t share = free_shares_.empty() ? next_share_ : free_shares_.back();
  const pid_t parent = getpid();
  const pid_t session = fork();
  if (session == 0) become_session(std::move(control), parent, share);
  if (session < 0) {
    log_error("connection of {} turned away: cannot start a process: {}", peer, std::strerror(errno));
    return turn_away(control, "Out of resources; try again later.");
  }
  if (free_shares_.empty()) {
    ++next_share_;  // never more than sessions run at once
  } else {
    free_shares_.pop_back();
  }
  running_.emplace(session, share);
  log_debug("session {} started for {}", session, peer);
}

void session_processes::reap() {
  int status = 0;
  for (pid_t ended = 0; (ended = waitpid(-1, &status, WNOHANG)) > 0;) {
    const auto session = running_.find(ended);
    if (session == running_.end()) continue;
    budget_clear(*budget_, session->second);
    free_shares_.push_back(session->second);
    running_.erase(session);
    if (WIFSIGNALED(status)) log_error("session {} died of signal {}", ended, WTERMSIG(status));
    if (WIFEXITED(status)) log_debug("session {} ended with status {}", ended, WEXITSTATUS(status));
  }
}

void session_processes::signal_all(int signal) const {
  for (const auto& [session, share] : running_) kill(session, signal);
}

void session_processes::wait_for_all() {
  for (const auto& [session, share] : running_) {
    while (waitpid(session, nullptr, 0) < 0 && errno == EINTR) {
    }
  }
  running_.clear();
}

}  // namespace tarvex::server
