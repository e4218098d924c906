/// \file
/// Reads of the client's data, part by part.
#pragma once

#include "tarvex_box_common.h"

#include <functional>

/// Where the uploader, on the operation thread, meets the read completions, on the I/O thread. The mutex guards the
/// fields after it. States of a read: registered (the uploader waits), over (`length` grew, or `eof`, or `result`).
struct tarvex_l_box_monitor_t {
  tarvex_mutex_t mutex;
  tarvex_cond_t cond;      ///< signalled by every completion
  size_t length;           ///< bytes received into the current buffer
  bool eof;                ///< the data are over
  bool done;               ///< not used
  tarvex_result_t result;  ///< of the most recent completion; owned
};

/// Completion of a read that the uploader registered; `user_arg` is the monitor. Runs on the I/O thread.
void tarvex_l_box_gridftp_read_cb(tarvex_gfs_operation_t op, tarvex_result_t result, unsigned char* buffer,
                                  size_t nbytes, tarvex_off_t offset, bool eof, void* user_arg);

namespace tarvex::box {

/// Takes bytes of a part while the rest of it is received, on the thread that reads; must not throw. False: no more are
/// wanted.
using piece_taker = std::function<bool(const unsigned char* piece, size_t length)>;

/// A monitor that is destroyed with its scope; no read may be registered then.
class read_monitor {
 public:
  read_monitor();
  read_monitor(const read_monitor&) = delete;
  read_monitor& operator=(const read_monitor&) = delete;
  ~read_monitor();

  /// Fills `buffer` with the next part. Stops when `size` bytes are there; the last part goes on to the end of the
  /// data, which must come then. Each byte goes to `taker` once (empty: nothing takes them); when that wants no more,
  /// reading stops early, with success.
  /// \return the failure of a read, or of its registration.
  [[nodiscard]] tarvex_result_t fill(tarvex_gfs_operation_t op, unsigned char* buffer, size_t size, bool last,
                                     const piece_taker& taker = {});
  size_t length() const { return monitor_.length; }

 private:
  tarvex_result_t fill_locked(tarvex_gfs_operation_t op, unsigned char* buffer, size_t size, bool last,
                              const piece_taker& taker);
  bool hand_over(const unsigned char* buffer, size_t length, const piece_taker& taker);
  void wait_for_completion(size_t before);

  tarvex_l_box_monitor_t monitor_{};
  size_t handed_over_ = 0;  ///< bytes of the current buffer that the taker has
};

}  // namespace tarvex::box
