#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

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
/// them.
///
/// Reads are done exactly once, in order: when full, when the data end or break off, and partly filled when the peer
/// is slow. A read of 0 bytes waits for the end of the data.
class inbound {
 public:
  virtual ~inbound() = default;

  // Any thread.

  /// \return false when the receiver is over; the read was not taken then.
  [[nodiscard]] virtual bool read(data_read read) = 0;
  /// Bytes that have come.
  virtual std::uint64_t received_bytes() const = 0;
  /// Whether the data have ended as only a peer that lives can end them.
  virtual bool end_is_certain() const { return false; }
  /// Whether it takes no more before something is read.
  virtual bool full() const { return false; }

  // I/O thread.

  /// A connection is there.
  virtual void attach(std::unique_ptr<data_socket> connection) = 0;
  /// No more reads. A peer that is still sending may go on for a while into nothing, so that it gets to read the reply.
  virtual void finish() = 0;
  /// Closes at once; reads that wait fail.
  virtual void abort() = 0;
};

}  // namespace tarvex::server
