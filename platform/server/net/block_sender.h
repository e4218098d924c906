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

/// The outgoing bytes of a transfer in extended block mode, on several connections: each takes the next block when it
/// has room for it. What it cannot send of a block at once it keeps in a buffer of its own, of one block, so that a
/// slow connection holds up neither the others nor whoever pushes.
///
/// Once all is sent each connection ends with a block that says so (EOD), one of them with their number (EOF).
///
/// States: waiting for its connections, of which the first ones send already; finishing (no more pieces); over.
class block_sender : public outbound {
 public:
  struct rules {
    std::size_t block_bytes = 0;              ///< of a block at most
    std::chrono::milliseconds stall_limit{};  ///< how long the peer may take nothing while there is something to send
    std::function<void(std::string)> failed;  ///< I/O thread, at most once: a connection broke; a sentence about it
  };

  block_sender(event_loop& loop, rules with);
  ~block_sender() override;
  block_sender(const block_sender&) = delete;
  block_sender& operator=(const block_sender&) = delete;

  [[nodiscard]] bool push(data_piece piece) override;
  [[nodiscard]] std::size_t write_now(std::span<const unsigned char>) override { return 0; }
  [[nodiscard]] bool wait_for_room(std::size_t limit) override;
  std::uint64_t sent_bytes() const override;
  void attach(std::unique_ptr<data_socket> connection) override;
  [[nodiscard]] boost::asio::awaitable<bool> finish() override;
  void abort() override;  ///< does not call `failed`

  // I/O thread.

  /// So many connections will be attached, or reported as missing; as long as it is not said, one.
  void expect(unsigned connections);
  /// One connection fewer will be attached; at least one has to be.
  void missing();

 private:
  struct state;
  std::shared_ptr<state> state_;
};

}  // namespace tarvex::server
