#include "tarvex_common.h"

#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <memory>
#include <mutex>
#include <new>
#include <utility>

namespace {

/// A thread in an interruptible call; lies on that thread's stack.
struct blocked_call {
  pthread_t thread;
  blocked_call* next;
};

}  // namespace

struct tarvex_cancel_s {
  std::mutex mutex;                    ///< keeps `requested` and the event in step; guards `blocked`
  std::atomic<bool> requested{false};  ///< read without the mutex
  int event_fd = -1;                   ///< readable while `requested`
  blocked_call* blocked = nullptr;
  std::condition_variable unblocked;  ///< a call is over

  ~tarvex_cancel_s() {
    if (event_fd >= 0) close(event_fd);
  }
};

namespace {

constexpr int INTERRUPTION = SIGURG;  // ignored where nobody handles it
constexpr auto INTERRUPTION_INTERVAL = std::chrono::milliseconds(2);
constexpr int INTERRUPTION_LIMIT = 500;

thread_local tarvex_cancel_t bound = nullptr;

/// Without a handler the signal would interrupt nothing, and with SA_RESTART the system call would go on.
void install_handler() {
  static std::once_flag installed;
  std::call_once(installed, [] {
    struct sigaction present = {};
    if (sigaction(INTERRUPTION, nullptr, &present) != 0) return;
    if (present.sa_handler != SIG_DFL && present.sa_handler != SIG_IGN) return;
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    (void)sigaction(INTERRUPTION, &action, nullptr);
  });
}

/// Lets the signal through to the calling thread for a scope.
class interruption_unmasked {
 public:
  interruption_unmasked() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, INTERRUPTION);
    pthread_sigmask(SIG_UNBLOCK, &set, &before_);
  }
  interruption_unmasked(const interruption_unmasked&) = delete;
  interruption_unmasked& operator=(const interruption_unmasked&) = delete;
  ~interruption_unmasked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

 private:
  sigset_t before_;
};

/// Interrupts the threads that are in a call until they have left it. A signal that comes just before the system call
/// blocks is lost, so one is not enough.
void interrupt_blocked(tarvex_cancel_s& cancel, std::unique_lock<std::mutex>& lock) {
  for (int i = 0; cancel.blocked != nullptr && i < INTERRUPTION_LIMIT; ++i) {
    for (const blocked_call* call = cancel.blocked; call != nullptr; call = call->next) {
      pthread_kill(call->thread, INTERRUPTION);
    }
    cancel.unblocked.wait_for(lock, INTERRUPTION_INTERVAL);
  }
}

/// Enters the calling thread among the blocked ones. False: the source is cancelled.
bool enter_blocked(tarvex_cancel_s& cancel, blocked_call& call) {
  const std::lock_guard lock(cancel.mutex);
  if (cancel.requested) return false;
  call = {.thread = pthread_self(), .next = cancel.blocked};
  cancel.blocked = &call;
  return true;
}

void leave_blocked(tarvex_cancel_s& cancel, const blocked_call& call) {
  const std::lock_guard lock(cancel.mutex);
  blocked_call** link = &cancel.blocked;
  while (*link != &call) link = &(*link)->next;
  *link = call.next;
  cancel.unblocked.notify_all();
}

}  // namespace

extern "C" {

int tarvex_cancel_init(tarvex_cancel_t* cancel) {
  if (cancel == nullptr) return EINVAL;
  *cancel = nullptr;
  std::unique_ptr<tarvex_cancel_s> source(new (std::nothrow) tarvex_cancel_s);
  if (!source) return ENOMEM;
  source->event_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (source->event_fd < 0) return errno;
  *cancel = source.release();
  return 0;
}

void tarvex_cancel_destroy(tarvex_cancel_t* cancel) {
  if (cancel != nullptr) delete std::exchange(*cancel, nullptr);
}

void tarvex_cancel_request(tarvex_cancel_t cancel) {
  if (cancel == nullptr) return;
  std::unique_lock lock(cancel->mutex);
  if (!cancel->requested.exchange(true)) (void)eventfd_write(cancel->event_fd, 1);  // the counter cannot be full
  interrupt_blocked(*cancel, lock);
}

void tarvex_cancel_reset(tarvex_cancel_t cancel) {
  if (cancel == nullptr) return;
  const std::lock_guard lock(cancel->mutex);
  eventfd_t count;
  if (cancel->requested.exchange(false)) (void)eventfd_read(cancel->event_fd, &count);
}

void tarvex_cancel_bind(tarvex_cancel_t cancel) {
  bound = cancel;
}

tarvex_cancel_t tarvex_cancel_bound(void) {
  return bound;
}

bool tarvex_cancel_requested(void) {
  return bound != nullptr && bound->requested;
}

int tarvex_cancel_fd(void) {
  return bound == nullptr ? -1 : bound->event_fd;
}

int tarvex_cancel_interruptible(int (*call)(void* argument), void* argument) {
  tarvex_cancel_s* const cancel = bound;
  int code = EINTR;
  if (cancel == nullptr) {
    while (code == EINTR) code = call(argument);
    return code;
  }
  install_handler();
  const interruption_unmasked unmasked;
  while (code == EINTR) {
    blocked_call blocked;
    if (!enter_blocked(*cancel, blocked)) return ECANCELED;
    code = call(argument);
    leave_blocked(*cancel, blocked);
  }
  return code;
}

}  // extern "C"
