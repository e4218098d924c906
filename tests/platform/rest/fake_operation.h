#pragma once

#include "tarvex_gridftp_server.h"

#include <condition_variable>
#include <functional>
#include <mutex>
#include <queue>
#include <string>
#include <thread>

/// An operation whose client is the test: reads and writes are completed in order on a thread of their own, as the
/// server's I/O thread does. Reads and writes are numbered from 0.
struct tarvex_gfs_operation_s {
  static constexpr std::size_t NEVER = std::string::npos;

  tarvex_gfs_operation_s();
  ~tarvex_gfs_operation_s();
  tarvex_result_t enqueue(std::function<void()> completion);

  std::string sends;                ///< what the client sends up to its end of data
  std::size_t piece_bytes = NEVER;  ///< of one read at most
  bool eof_with_data = true;        ///< the last bytes come with the end of data
  std::size_t failing_read = NEVER;
  std::size_t refused_read = NEVER;
  std::size_t failing_write = NEVER;  ///< and all after it
  std::size_t refused_write = NEVER;
  std::size_t taken_at_once = 0;  ///< bytes in all that go without a registered write
  std::function<void()> before;   ///< runs on the I/O thread before each completion

  // To be looked at once the request is over.
  std::string got;              ///< the bytes written, from `got_offset` on
  tarvex_off_t got_offset = 0;  ///< -1: they were not in order
  std::size_t sent = 0;
  std::size_t reads = 0;
  std::size_t writes = 0;
  std::size_t completed = 0;  ///< reads and writes
  std::size_t most_in_flight = 0;
  tarvex_off_t counted = 0;  ///< by `tarvex_gridftp_server_update_bytes_recvd`

  /// Enters what was written.
  void take(const unsigned char* buffer, std::size_t length, tarvex_off_t offset);
  /// \return how many of the bytes go without a registered write.
  std::size_t take_at_once(const unsigned char* buffer, std::size_t length, tarvex_off_t offset);

 private:
  void complete_all();

  std::mutex mutex_;
  std::condition_variable changed_;
  std::queue<std::function<void()>> queue_;
  bool stopping_ = false;
  std::jthread io_thread_;
};
