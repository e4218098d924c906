#pragma once

#include "net/event_loop.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace tarvex::server {

class data_socket;

/// What became of a read.
struct read_outcome {
  bool failed = false;
  std::size_t bytes = 0;
  std::uint64_t offset = 0;  ///< of the first of them, counted from the first byte that came
  bool eof = false;          ///< no more will come
};

/// A wish for the next bytes. The buffer is the receiver's until `done`, which runs on the I/O thread.
struct data_read {
  unsigned char* buffer = nullptr;
  std::size_t length = 0;
  std::function<void(const read_outcome&)> done;
};

/// The incoming bytes of one transfer: a monitor between the threads that want them and the I/O thread, which receives
/// them straight into the buffers of waiting reads, or ahead of reads into a window of bounded memory.
///
/// Reads are done exactly once, in order: when full, when the data end or break off, and partly filled when the peer
/// is slow. A read of 0 bytes waits for the end of the data. The data end when the peer closes its direction in order,
/// after as many bytes as it announced, and is still there to be answered a grace later: a process that is killed
/// closes its data connection like one that has sent everything, but its control connection goes with it.
///
/// States: waiting for its connection, open, ended or broken off (what came before is still handed out), over.
class data_receiver {
 public:
  struct rules {
    std::size_t window_bytes = 0;             ///< of memory for what comes ahead of reads
    std::chrono::milliseconds stall_limit{};  ///< how long the peer may send nothing
    std::optional<std::uint64_t> expected;    ///< exactly so many bytes must come; nothing: as many as come
    /// Before the end of the data is believed; that is then done once a read waits for the end.
    std::chrono::milliseconds end_grace{15};
    std::function<bool()> peer_present;  ///< I/O thread: whether the control connection is there after the grace
    /// So many of the newest bytes are not handed out before the end is believed, and never when it is not: whoever
    /// passes data on as they come can still let them fail. Costs a copy of every byte.
    std::size_t hold_last_bytes = 0;
    /// Under TLS: a FIN without close_notify is no end of the data, since anybody on the way can send one.
    bool require_close_notify = false;
    /// I/O thread, at most once: the data did not end as they should; a reply code and a sentence about it.
    std::function<void(int code, const std::string& why)> broken;
  };

  data_receiver(event_loop& loop, rules with);
  ~data_receiver();
  data_receiver(const data_receiver&) = delete;
  data_receiver& operator=(const data_receiver&) = delete;

  // Any thread.

  /// \return false when the receiver is over; the read was not taken then.
  [[nodiscard]] bool read(data_read read);
  /// Bytes that have come.
  std::uint64_t received_bytes() const;

  // I/O thread.

  /// The connection is there.
  void attach(std::unique_ptr<data_socket> connection);
  /// No more reads. A peer that is still sending may go on for a while into nothing, so that it gets to read the reply.
  void finish();
  /// Closes at once; reads that wait fail. Does not call `broken`.
  void abort();

 private:
  struct state;
  std::shared_ptr<state> state_;
};

}  // namespace tarvex::server
