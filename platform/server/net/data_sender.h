#pragma once

#include "net/event_loop.h"

#include <boost/asio/awaitable.hpp>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace tarvex::server {

class data_socket;

/// What is sent in one go: bytes that the sender keeps until `done`, or bytes handed over in `owned`.
struct data_piece {
  const unsigned char* bytes = nullptr;
  std::size_t length = 0;
  std::string owned;               ///< sent instead of `bytes` when not empty
  std::function<void(bool)> done;  ///< I/O thread; whether the piece was sent; may be empty
};

/// The outgoing bytes of one transfer: a monitor between the threads that push pieces and the I/O thread that sends
/// them, straight from where they lie and several in one system call.
///
/// States: waiting for its connection, open, finishing (no more pieces), over (sent and closed, or failed). Every
/// piece that was taken is done exactly once, in order.
class data_sender {
 public:
  /// \param stall_limit  how long the peer may take nothing while there is something to send
  /// \param failed       I/O thread, at most once: the connection broke, with a sentence about it
  data_sender(event_loop& loop, std::chrono::milliseconds stall_limit, std::function<void(std::string)> failed);
  ~data_sender();
  data_sender(const data_sender&) = delete;
  data_sender& operator=(const data_sender&) = delete;

  // Any thread.

  /// \return false when the sender is over; the piece was not taken then.
  [[nodiscard]] bool push(data_piece piece);
  /// Blocks while more than `limit` bytes wait to be sent. \return false when the sender is over.
  [[nodiscard]] bool wait_for_room(std::size_t limit);
  /// Bytes that the kernel took.
  std::uint64_t sent_bytes() const;

  // I/O thread.

  /// The connection is there.
  void attach(std::unique_ptr<data_socket> connection);
  /// Waits until all that is there was sent, and closes (FIN). Once.
  /// \return whether all of it went out.
  [[nodiscard]] boost::asio::awaitable<bool> finish();
  /// Closes at once; pieces that wait are done as not sent, and so is a `finish`. Does not call `failed`.
  void abort();

 private:
  struct state;
  std::shared_ptr<state> state_;
};

}  // namespace tarvex::server
