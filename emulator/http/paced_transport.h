#pragma once

#include "http/transport.h"

#include <chrono>

namespace tarvex::emulator {

/// A connection of a limited rate, both ways. Bytes go in small pieces with equal waits between them, so that the rate
/// holds over a hundredth of a second as over an hour. Used by the connection's own thread.
class paced_transport final : public transport {
 public:
  /// `through` must outlive this.
  explicit paced_transport(transport& through) : through_(through) {}

  /// Bytes a second from now on; 0 and below: no limit.
  void set_rate(std::int64_t bytes_per_second);

  std::size_t read(std::span<char> out) override;
  bool write(std::string_view bytes, bool more) override;
  bool send_file(int file, std::int64_t offset, std::int64_t length) override;
  bool pause(std::int64_t milliseconds) override;
  void limit_backlog(int bytes) override { through_.limit_backlog(bytes); }

 private:
  using clock = std::chrono::steady_clock;

  [[nodiscard]] std::size_t piece() const;
  void moved(std::size_t bytes, clock::time_point began);

  transport& through_;
  std::int64_t rate_ = 0;
  std::size_t read_freely_ = 0;           // by the last read without a limit
  clock::time_point due_ = clock::now();  // when the line is free again
};

}  // namespace tarvex::emulator
