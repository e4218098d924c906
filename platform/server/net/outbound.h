#pragma once

#include <boost/asio/awaitable.hpp>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>

namespace tarvex::server {

class data_socket;

/// What is sent in one go: bytes that the sender keeps until `done`, or bytes handed over in `owned`.
struct data_piece {
  const unsigned char* bytes = nullptr;
  std::size_t length = 0;
  std::string owned;               ///< sent instead of `bytes` when not empty
  std::function<void(bool)> done;  ///< I/O thread; whether the piece was sent; may be empty
  std::uint64_t offset = 0;        ///< of the file, of its first byte
};

/// The outgoing bytes of one transfer: a monitor between the threads that push pieces and the I/O thread that sends
/// them. Every piece that was taken is done exactly once, in order.
class outbound {
 public:
  virtual ~outbound() = default;

  // Any thread.

  /// \return false when the sender is over; the piece was not taken then.
  [[nodiscard]] virtual bool push(data_piece piece) = 0;
  /// Sends as many of the bytes as the peer takes at once, on the calling thread. What was pushed comes first: as long
  /// as some of it waits nothing goes, and neither does it without a connection or after the end. \return how many.
  [[nodiscard]] virtual std::size_t write_now(std::span<const unsigned char> bytes) = 0;
  /// Blocks while more than `limit` bytes wait to be sent. \return false when the sender is over.
  [[nodiscard]] virtual bool wait_for_room(std::size_t limit) = 0;
  /// Bytes of pieces that the kernel took.
  virtual std::uint64_t sent_bytes() const = 0;

  // I/O thread.

  /// A connection is there.
  virtual void attach(std::unique_ptr<data_socket> connection) = 0;
  /// Waits until all that is there was sent, and closes. Once.
  /// \return whether all of it went out.
  [[nodiscard]] virtual boost::asio::awaitable<bool> finish() = 0;
  /// Closes at once; pieces that wait are done as not sent, and so is a `finish`.
  virtual void abort() = 0;
};

}  // namespace tarvex::server
