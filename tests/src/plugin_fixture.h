/// \file
/// The server framework as the plug-in sees it, counting completions, and a session on it.
#pragma once

#include "../platform/common/results.h"
#include "scripted_box.h"
#include "tarvex_box_common.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <deque>
#include <filesystem>
#include <map>
#include <string>
#include <thread>
#include <vector>

/// One read that completes.
struct Block {
  std::string data = {};
  bool eof = false;
  bool fails = false;
};

/// What the framework hands over and is told.
struct Framework {
  std::map<std::string, std::deque<std::string>> config;  ///< answers to each key, the last one for ever
  std::vector<std::string> asked;                         ///< keys in order
  int completions = 0;
  std::string error;  ///< text of the completion's error; empty: success
  int reply_code = 0;
  std::string source;           ///< "FILE:FUNCTION" of a generic error
  int line = 0;                 ///< in that file
  std::string text = "(null)";  ///< of the command's completion, or the home directory
  void* session = nullptr;
  std::string checksums;
  bool checksums_fail = false;
  std::vector<std::vector<std::string>> batches;  ///< names of stat batches; the last is the final one
  std::vector<tarvex_gridftp_server_control_stat_t> entries;
  std::vector<std::string> progress;
  int update_interval = 0;
  int begun = 0;
  std::deque<std::pair<tarvex_off_t, tarvex_off_t>> read_ranges;
  std::pair<tarvex_off_t, tarvex_off_t> write_range = {0, -1};
  time_t modification_time = -1;
  bool modification_time_fails = false;
  std::deque<Block> blocks;
  bool register_fails = false;
  tarvex_off_t received = 0;
  std::vector<std::jthread> io;

  tarvex_gfs_operation_t op() { return reinterpret_cast<tarvex_gfs_operation_t>(this); }
  void complete(tarvex_result_t result);
};

/// Starts each case with a fresh home directory, script, framework and settings.
class PluginTest : public testing::Test {
 protected:
  PluginTest();
  ~PluginTest() override;

  /// Logs in; the root holds these items.
  tarvex_box_session_t* login(const std::vector<std::string>& root_items = {});
  /// A fresh framework for the next operation, with the session of the last login.
  Framework& next();
  tarvex_box_path_info_t* cached(const char* path) { return tarvex_box_path_cache_query(&session->cache, path); }
  std::string command(tarvex_gfs_command_type_t type, const char* path, const char* from = nullptr);
  std::string cksm(const char* algorithm, const char* path, tarvex_off_t offset = 0, tarvex_off_t length = -1);
  std::string stat_path(const char* path, bool file_only);
  std::string send(const char* path);
  std::string recv(const char* path, uint64_t size, bool truncate = true);

  /// Runs an entry point of the storage interface, which completes exactly once. \return the error's text.
  template <typename Entry, typename Info>
  std::string run(Entry entry, Info info) {
    framework.completions = 0;
    entry(framework.op(), &info, session);
    EXPECT_EQ(framework.completions, 1);
    return framework.error;
  }
  /// Each row's `call` gets the row's answers, uses them all, and yields a text that starts with the row's error.
  struct Row {
    const char* what;
    std::vector<Answer> answers;
    std::string error;
  };
  template <typename Call>
  void expect_rows(const std::vector<Row>& rows, Call call) {
    for (const Row& row : rows) {
      SCOPED_TRACE(std::string(row.what) + ": " + row.error);
      box_script.answers.assign(row.answers.begin(), row.answers.end());
      const std::string error = call(row.what);
      EXPECT_TRUE(row.error.empty() ? error.empty() : error.starts_with(row.error)) << error;
      EXPECT_TRUE(box_script.answers.empty());
    }
  }

  std::filesystem::path home;
  Framework framework;
  tarvex_box_session_t* session = nullptr;
};
