/// \file
/// An upload whose parts are on their way side by side.
#pragma once

#include "connection_seats.h"
#include "part_buffers.h"
#include "part_courier.h"
#include "read_monitor.h"
#include "upload_digests.h"
#include "worker_pool.h"

#include <deque>
#include <memory>

namespace tarvex::box {

/// Reads parts from the client and digests them in order, on the thread that calls, and has them sent by threads and
/// connections of their own, as many as the setting, the width and the user's seats allow.
class part_flight {
 public:
  part_flight(tarvex_gfs_operation_t op, tarvex_box_session_t* box, tarvex_box_upload_session_t& upload);
  part_flight(const part_flight&) = delete;
  part_flight& operator=(const part_flight&) = delete;
  /// Waits for what is on its way.
  ~part_flight() = default;

  /// Sends the parts from `first` on, which is where the upload's gap is. All threads are idle when it returns. After a
  /// failure the record is as it was at the first gap, with what Box has beyond, and the error names the gap.
  [[nodiscard]] tarvex_result_t run(int first);

 private:
  enum class state { reading, flying, unauthorised, stored, failed };
  struct flying_part : part_consignment {
    state is = state::reading;
    bool seated = false;  ///< has a seat
    part_buffer buffer = {};
    digest_mark before{};   ///< of the file's digests
    uint64_t digested = 0;  ///< what they must have come to before the part may go
  };
  using lock = std::unique_lock<std::mutex>;

  tarvex_result_t read_and_send(int index);
  tarvex_result_t make_room(part_buffer& buffer);
  tarvex_result_t read(flying_part& part);
  bool stored_before(flying_part& part);
  tarvex_result_t give_out(flying_part& part);
  void take_seat(lock& held, flying_part& part);
  void start(flying_part& part);
  void fly(flying_part& part) noexcept;
  void come_down(flying_part& part, state how) noexcept;

  template <typename Ready>
  void wait(lock& held, Ready ready);
  void renew(lock& held, flying_part& part);

  void land();
  tarvex_result_t finish(tarvex_result_t failure);
  tarvex_result_t first_failure();

  const tarvex_gfs_operation_t op_;
  tarvex_box_session_t* const box_;
  tarvex_box_upload_session_t& upload_;
  connection_seats seats_;
  read_monitor monitor_;

  part_traffic traffic_;  // its mutex guards what follows and the parts' states
  int in_flight_ = 0;     // unauthorised ones included
  int unauthorised_ = 0;
  part_buffers buffers_;

  std::deque<std::unique_ptr<flying_part>> parts_;  // in order, from the first that is not known to be stored
  upload_digests digests_;                          // its thread uses the parts' memory
  worker_pool pool_;                                // the last member: its threads use the others
};

}  // namespace tarvex::box
