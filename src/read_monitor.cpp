#include "read_monitor.h"

#include "error.h"

#include <utility>

namespace {

/// A result of the caller's own on the same error, which outlives the callback that it was lent to.
tarvex_result_t tarvex_l_box_result_share(tarvex_result_t result) {
  if (result == TARVEX_SUCCESS) return result;
  tarvex_object_t* const error = tarvex_error_peek(result);
  tarvex_object_reference(error);
  return tarvex_error_put(error);
}

/// Holds the monitor's mutex for its scope.
class monitor_lock {
 public:
  explicit monitor_lock(tarvex_mutex_t& mutex) : mutex_(mutex) { tarvex_mutex_lock(&mutex_); }
  monitor_lock(const monitor_lock&) = delete;
  monitor_lock& operator=(const monitor_lock&) = delete;
  ~monitor_lock() { tarvex_mutex_unlock(&mutex_); }

 private:
  tarvex_mutex_t& mutex_;
};

}  // namespace

void tarvex_l_box_gridftp_read_cb(tarvex_gfs_operation_t op, tarvex_result_t result, unsigned char*, size_t nbytes,
                                  tarvex_off_t, bool eof, void* user_arg) {
  auto& monitor = *static_cast<tarvex_l_box_monitor_t*>(user_arg);
  {
    const monitor_lock lock(monitor.mutex);
    tarvex_result_release(monitor.result);
    monitor.result = tarvex_l_box_result_share(result);
    monitor.eof = eof;
    monitor.length += nbytes;
    tarvex_cond_signal(&monitor.cond);
  }
  tarvex_gridftp_server_update_bytes_recvd(op, static_cast<tarvex_off_t>(nbytes));
}

namespace tarvex::box {

read_monitor::read_monitor() {
  tarvex_mutex_init(&monitor_.mutex, nullptr);
  tarvex_cond_init(&monitor_.cond, nullptr);
}

read_monitor::~read_monitor() {
  tarvex_cond_destroy(&monitor_.cond);
  tarvex_mutex_destroy(&monitor_.mutex);
}

tarvex_result_t read_monitor::fill(tarvex_gfs_operation_t op, unsigned char* buffer, size_t size, bool last,
                                   const piece_taker& taker) {
  const monitor_lock lock(monitor_.mutex);
  monitor_.length = handed_over_ = 0;
  monitor_.eof = monitor_.done = false;
  monitor_.result = TARVEX_SUCCESS;
  const tarvex_result_t registered = fill_locked(op, buffer, size, last, taker);
  const tarvex_result_t received = std::exchange(monitor_.result, SUCCESS);
  if (registered == TARVEX_SUCCESS) return received;
  tarvex_result_release(received);
  return registered;
}

tarvex_result_t read_monitor::fill_locked(tarvex_gfs_operation_t op, unsigned char* buffer, size_t size, bool last,
                                          const piece_taker& taker) {
  bool wanted = true;
  do {
    const size_t before = monitor_.length;
    const tarvex_result_t result = tarvex_gridftp_server_register_read(op, buffer + before, size - before,
                                                                       tarvex_l_box_gridftp_read_cb, &monitor_);
    if (result != TARVEX_SUCCESS) return result;
    wanted = hand_over(buffer, before, taker);
    wait_for_completion(before);
    // A full last part is followed by a read of 0 bytes, which sees the end of the data.
  } while (wanted && !monitor_.eof && monitor_.result == TARVEX_SUCCESS && (last || monitor_.length < size));
  if (wanted && monitor_.result == TARVEX_SUCCESS) (void)hand_over(buffer, monitor_.length, taker);
  return TARVEX_SUCCESS;
}

/// Passes on what has come, without the lock, so that a completion need not wait.
bool read_monitor::hand_over(const unsigned char* buffer, size_t length, const piece_taker& taker) {
  if (!taker) return true;
  const size_t from = std::exchange(handed_over_, length);
  tarvex_mutex_unlock(&monitor_.mutex);
  const bool wanted = taker(buffer + from, length - from);
  tarvex_mutex_lock(&monitor_.mutex);
  return wanted;
}

void read_monitor::wait_for_completion(size_t before) {
  while (monitor_.length == before && !monitor_.eof && monitor_.result == TARVEX_SUCCESS) {
    tarvex_cond_wait(&monitor_.cond, &monitor_.mutex);
  }
}

}  // namespace tarvex::box
