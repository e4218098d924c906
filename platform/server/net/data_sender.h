#pragma once

#include "net/event_loop.h"
#include "net/outbound.h"

#include <boost/asio/awaitable.hpp>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace tarvex::server {

/// The outgoing bytes of a transfer in stream mode, on one connection: sent straight from where they lie, several
/// pieces in one system call.
///
/// States: waiting for its connection, open, finishing (no more pieces), over (sent and closed, or failed).
class data_sender : public outbound {
 public:
  /// \param stall_limit  how long the peer may take nothing while there is something to send
  /// \param failed       I/O thread, at most once: the connection broke, with a sentence about it
  data_sender(event_loop& loop, std::chrono::milliseconds stall_limit, std::function<void(std::string)> failed);
  ~data_sender() override;
  data_sender(const data_sender&) = delete;
  data_sender& operator=(const data_sender&) = delete;

  [[nodiscard]] bool push(data_piece piece) override;
  [[nodiscard]] std::size_t write_now(std::span<const unsigned char> bytes) override;
  [[nodiscard]] bool wait_for_room(std::size_t limit) override;
  std::uint64_t sent_bytes() const override;
  void attach(std::unique_ptr<data_socket> connection) override;
  [[nodiscard]] boost::asio::awaitable<bool> finish() override;
  void abort() override;  ///< does not call `failed`

 private:
  struct state;
  std::shared_ptr<state> state_;
};

}  // namespace tarvex::server
