#pragma once

#include "config/configuration.h"
#include "session_process.h"
#include "config/configuration.h"
#include "storage/change_counters.h"
#include "storage/plugin.h"
#include "storage/plugin.h"
#include "tarvex_gridftp_server.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <vector>

namespace tarvex::server::test {

/// A connected or listening TCP socket on loopback whose reads give up after a generous time.
class loopback_socket {
 public:
  loopback_socket() = default;
  explicit loopback_socket(int descriptor);
  ~loopback_socket();
  loopback_socket(loopback_socket&& other) noexcept;
  loopback_socket& operator=(loopback_socket&& other) noexcept;

  static loopback_socket listener(bool ipv6 = false);
  static loopback_socket connect(std::uint16_t port, const std::string& from = {}, bool ipv6 = false);
  loopback_socket accept() const;
  std::uint16_t port() const;

  void write(const std::string& bytes) const;
  /// Up to `most` bytes; empty at the end or when it was reset.
  std::string read(std::size_t most = 65536) const;
  std::string read_all() const;
  /// Closes with a reset.
  void reset();
  void close();
  int release();
  int descriptor() const { return descriptor_; }

 private:
  int descriptor_ = -1;
};

/// What the storage does; each test changes what it needs.
struct storage_script {
  std::function<void(tarvex_gfs_operation_t, tarvex_gfs_session_info_t*)> start;
  std::function<void(tarvex_gfs_operation_t, tarvex_gfs_stat_info_t*)> stat;
  std::function<void(tarvex_gfs_operation_t, tarvex_gfs_transfer_info_t*)> send;
  std::function<void(tarvex_gfs_operation_t, tarvex_gfs_transfer_info_t*)> recv;
  std::function<void(tarvex_gfs_operation_t, tarvex_gfs_command_info_t*)> command;
  std::atomic<int> destroyed{0};
};

/// A session in a thread of its own before a scripted storage, and the client's end of its control connection.
/// User "alice", password "secret". "/" and "/dir" are folders, "/file" is a file of five bytes, all else is missing.
class SessionTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  void connect(bool ipv6 = false);
  void log_in();
  /// Sends a line and reads the reply.
  std::string command(const std::string& line);
  /// The next whole reply, every line of it; what there is when the connection ends.
  std::string reply();
  /// Prepares a data connection.
  loopback_socket passive(const std::string& from = {});
  void write_credential(const std::string& text);
  /// Closes the control connection and waits for the session to end.
  void close_session();
  /// Whether the session has ended within five seconds.
  bool ended();

  configuration config;
  storage_script script;
  change_counters changes{};  ///< of all accounts
  loopback_socket control;

 private:
  std::string unread_;
  storage_plugin storage_;
  std::string directory_;
  std::thread thread_;
  std::future<int> status_;
};

/// Answers a stat with one entry.
void answer_item(tarvex_gfs_operation_t op, bool folder, tarvex_off_t size);
/// Answers a listing in batches: "." and then `count` files "f0", "f1", ...
void answer_listing(tarvex_gfs_operation_t op, int count, int batch);
tarvex_result_t not_found(const char* path);
/// Registers a write and waits for its callback. \return the first failure.
bool write_and_wait(tarvex_gfs_operation_t op, std::string bytes, tarvex_off_t offset);

}  // namespace tarvex::server::test
