#pragma once

#include "config/configuration.h"
#include "support/socket.h"
#include "support/temporary_folder.h"
#include "tarvex_gridftp_server.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace tarvex::server::test {

using testing::StartsWith;

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
  SessionTest();
  ~SessionTest() override;

  void connect(bool ipv6 = false);
  void log_in();
  /// Sends a line and reads the reply.
  std::string command(const std::string& line);
  /// The next whole reply, every line of it; what there is when the connection ends.
  std::string reply();
  /// Sends each line; its reply starts as said.
  void expect(const std::string& line, const std::string& start);
  void expect(const std::vector<std::pair<std::string, std::string>>& rows);
  /// The next reply starts so.
  void expect_reply(const std::string& start);
  /// Prepares a data connection.
  loopback_socket passive(const std::string& from = {});
  /// Sends a line that brings data over a passive connection. \return the data; the final reply is still to be read.
  std::string fetch(const std::string& line);
  /// Adds to the account's table, before a connection.
  void add_to_account(const std::string& lines);
  void write_credential(const std::string& text);
  /// Closes the control connection and waits for the session to end.
  void close_session();
  /// Whether the session has ended within five seconds.
  bool ended();
  /// Another session of the account has changed something at a path.
  void others_change(const std::string& path);
  /// The same of an item that is new there.
  void others_add(const std::string& path);

  configuration config;
  storage_script script;
  loopback_socket control;

 private:
  struct server_side;

  std::string unread_;
  std::string accounts_text_;
  temporary_folder folder_;
  std::unique_ptr<server_side> server_;
};

/// A request of the storage's to Box, and its answer, as a REST client tells of them.
struct exchange {
  const char* method = "GET";
  int status = 200;  ///< 0: no answer came, and the request may have arrived
  const char* type = nullptr;
  const char* digest = nullptr;
  const char* path = "/2.0/files/1";
};
/// Tells the server.
void play(const exchange& over);

/// Answers a stat with one entry.
void answer_item(tarvex_gfs_operation_t op, bool folder, tarvex_off_t size);
/// Answers a listing in batches: "." and then `count` files "f0", "f1", ...
void answer_listing(tarvex_gfs_operation_t op, int count, int batch);
tarvex_result_t not_found(const char* path);
/// Registers a write and waits for its callback. \return whether it succeeded.
bool write_and_wait(tarvex_gfs_operation_t op, std::string bytes, tarvex_off_t offset);
/// Sleeps as a storage does that waits for an answer, until the operation is cancelled.
void wait_for_cancel();

}  // namespace tarvex::server::test
