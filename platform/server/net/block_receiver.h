#pragma once

#include "net/event_loop.h"
#include "net/inbound.h"
#include "net/window_memory.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace tarvex::server {

/// The incoming bytes of a transfer in extended block mode: blocks in any order, on several connections that may come
/// at any time until the end, put in order in a window of bounded memory.
///
/// A connection whose bytes lie beyond the window is not read before the window has moved on. When all connections wait
/// like this for bytes that none of them brings, and none comes that does, the data are broken off.
///
/// The data end when one connection has said on how many they end (EOF), and so many have (EOD); then every byte has to
/// be there.
///
/// States: waiting for its connections, open, ended or broken off (what came before is still handed out), over.
class block_receiver : public inbound {
 public:
  struct rules {
    std::uint64_t start = 0;  ///< of the file, the first byte that is wanted; what comes of those before is dropped
    std::uint64_t shift = 0;  ///< added to the offset of each block
    std::optional<std::uint64_t> expected = {};  ///< exactly so many bytes must come; nothing: as many as come
    std::size_t window_bytes = 0;                ///< of memory for what cannot be handed out
    memory_account account = {};                 ///< that this memory is taken from
    unsigned connections_max = 1;                ///< of the transfer
    std::chrono::milliseconds stall_limit{};     ///< how long the peer may send nothing
    std::chrono::milliseconds gap_limit{};    ///< how long all connections may wait for bytes that none of them brings
    std::function<bool()> peer_present = {};  ///< I/O thread: whether the control connection is there at the end
    /// I/O thread, at most once: the data did not end as they should; a reply code and a sentence about it.
    std::function<void(int code, const std::string& why)> broken = {};
  };

  block_receiver(event_loop& loop, rules with);
  ~block_receiver() override;
  block_receiver(const block_receiver&) = delete;
  block_receiver& operator=(const block_receiver&) = delete;

  [[nodiscard]] bool read(data_read read) override;
  std::uint64_t received_bytes() const override;
  bool full() const override;
  void attach(std::unique_ptr<data_socket> connection) override;
  void finish() override;
  void abort() override;  ///< does not call `broken`

 private:
  struct state;
  std::shared_ptr<state> state_;
};

}  // namespace tarvex::server
