#include "tarvex_common.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <mutex>
#include <new>
#include <utility>

struct tarvex_cancel_s {
  std::mutex mutex;                    ///< keeps `requested` and the event in step
  std::atomic<bool> requested{false};  ///< read without the mutex
  int event_fd = -1;                   ///< readable while `requested`

  ~tarvex_cancel_s() {
    if (event_fd >= 0) close(event_fd);
  }
};

namespace {

thread_local tarvex_cancel_t bound = nullptr;

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
  const std::lock_guard lock(cancel->mutex);
  if (!cancel->requested.exchange(true)) (void)eventfd_write(cancel->event_fd, 1);  // the counter cannot be full
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

bool tarvex_cancel_requested(void) {
  return bound != nullptr && bound->requested;
}

int tarvex_cancel_fd(void) {
  return bound == nullptr ? -1 : bound->event_fd;
}

}  // extern "C"
