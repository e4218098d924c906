#include "storage/store_fixture.h"

#include <mutex>
#include <set>

namespace tarvex::server::test {
namespace {

using testing::Each;
using testing::HasSubstr;
using testing::Not;

tarvex_result_t refusal(const std::string& word, const std::string& text) {
  return tarvex_error_put(
      tarvex_gfs_ftp_response_error_construct(nullptr, nullptr, 550, word.c_str(), "%s", text.c_str()));
}

/// An account whose root is "/Projects/X", with a folder "dir" and a file "file" in it.
class RootTest : public StoreTest {
 protected:
  RootTest() {
    add_to_account("root = \"/Projects/X\"\n");
    script.start = [](auto op, auto*) {
      tarvex_gridftp_server_finished_session_start(op, TARVEX_SUCCESS, nullptr, nullptr, "/home/elsewhere");
    };
    script.stat = [this](auto op, tarvex_gfs_stat_info_t* info) {
      const std::string path = note_path(info->pathname);
      if (path == "/Projects/X" || path == "/Projects/X/dir")
        return info->file_only ? answer_item(op, true, 0) : answer_listing(op, 2, 100);
      if (path == "/Projects/X/file") return answer_item(op, false, 5);
      tarvex_gridftp_server_finished_stat(op, not_found(info->pathname), nullptr, 0);
    };
    script.command = [this](auto op, tarvex_gfs_command_info_t* info) {
      for (const char* path : {info->pathname, info->from_pathname})
        if (path) note_path(path);
      tarvex_gridftp_server_finished_command(op, TARVEX_SUCCESS, info->pathname);
    };
    const auto send = script.send;
    script.send = [this, send](auto op, auto* info) {
      note_path(info->pathname);
      send(op, info);
    };
    const auto recv = script.recv;
    script.recv = [this, recv](auto op, auto* info) {
      note_path(info->pathname);
      recv(op, info);
    };
  }

  /// Remembers what the storage was asked about.
  std::string note_path(const char* path) {
    const std::lock_guard lock(mutex_);
    return *asked_.insert(path).first;
  }

  std::set<std::string> asked() {
    const std::lock_guard lock(mutex_);
    return asked_;
  }

 private:
  std::mutex mutex_;
  std::set<std::string> asked_;
};

TEST_F(RootTest, TheStorageIsAskedOfNothingOutside) {
  log_in();
  expect({{"PWD", "257 \"/\" "},
          {"CWD ../..", "250 Folder changed to /."},
          {"CWD /../../dir", "250 Folder changed to /dir."},
          {"PWD", "257 \"/dir\" "},
          {"SIZE ../../../file", "213 5"},
          {"MLST /", "250-Listing /\r\n"},
          {"SIZE /Projects/X/file", "550-PATH_NOT_FOUND\r\n550-GridFTP-Path: \"/Projects/X/file\"\r\n550 End.\r\n"},
          {"SIZE /../XY", "550-PATH_NOT_FOUND\r\n550-GridFTP-Path: \"/XY\"\r\n550 End.\r\n"},
          {"MKD /../XY", "257 \"/XY\" is made."},
          {"DELE ../../../../Projects", "250 /Projects is deleted."},
          {"RNFR ../file", "350 "},
          {"RNTO ../../../XY/file", "250 /file is now /XY/file."},
          {"SITE CHMOD 644 ../../a", "250 /a"},
          {"SITE SYMLINK /../a /../b", "250 /b"},
          {"CKSM MD5 0 3 /file", "451 "},
          {"SITE RDEL /..", "553 "},
          {"RMD /dir/../..", "553 "},
          {"RNFR ..", "553 "}});
  EXPECT_EQ(fetch("RETR ../../file"), "hello");
  expect_reply("226 ");
  EXPECT_EQ(fetch("NLST /.."), "f0\r\nf1\r\n");
  expect_reply("226 ");
  others_add("/Projects");
  others_add("/Projects/X");
  others_add("/Projects/X/XY");
  expect("SIZE /XY/a", "550-");
  expect_store("/../Projects", "bytes", "226 ");
  EXPECT_THAT(asked(), Each(StartsWith("/Projects/X")));
  EXPECT_THAT(asked(), Each(Not(StartsWith("/Projects/XY"))));
}

TEST_F(RootTest, SessionsOfTheAccountKnowOfEachOther) {
  log_in();
  int starts = 0;
  const auto start = script.start;
  script.start = [&](auto op, auto* info) {
    ++starts;
    start(op, info);
  };
  for (const auto& [path, renewed] : {std::pair("/file", 0), {"/Projects/X/file", 1}, {"/Projects", 2}}) {
    others_change(path);
    expect("SIZE file", "213 ");
    EXPECT_EQ(starts, renewed) << path;
  }
}

TEST_F(RootTest, WhatTheStorageSaysLosesIt) {
  log_in();
  struct {
    const char* said;
    const char* shown;
  } const rows[] = {
      {"GridFTP-Path: \"/Projects/X/dir/a\"", "GridFTP-Path: \"/dir/a\""},
      {"GridFTP-Path: /Projects/X", "GridFTP-Path: /"},
      {"GridFTP-Path: \"/Projects/XY\"", "GridFTP-Path: \"/Projects/XY\""},
      {"Box-Path: \"/Projects/X/dir/Projects/X/a\"", "Box-Path: \"/dir/Projects/X/a\""},
      {"cannot touch /Projects/X/dir/Projects/X/a: no", "cannot touch /dir/Projects/X/a: no"},
  };
  for (const auto& row : rows) {
    script.command = [&](auto op, auto*) {
      tarvex_gridftp_server_finished_command(op, refusal("SOME_CLASS", row.said), nullptr);
    };
    expect("DELE /dir/Projects/X/a", "550-SOME_CLASS\r\n550-" + std::string(row.shown) + "\r\n550 End.\r\n");
  }
  script.command = [](auto op, auto*) {
    play({.method = "DELETE", .status = 0});
    tarvex_gridftp_server_finished_command(op, TARVEX_SUCCESS, nullptr);
  };
  script.stat = [](auto op, auto*) { tarvex_gridftp_server_finished_stat(op, refusal("TOO_BUSY", "x"), nullptr, 0); };
  EXPECT_THAT(command("DELE /a"), Not(HasSubstr("Projects")));
}

TEST_F(RootTest, WhatRunsIsShownWithoutIt) {
  log_in();
  script.recv = [this](auto op, auto* info) {
    note(op, info);
    tarvex_gridftp_server_begin_transfer(op, 0, nullptr);
    take_all(op, 100);
    tarvex_gridftp_server_finished_transfer(op, TARVEX_SUCCESS);
  };
  loopback_socket data = passive();
  command("ALLO 10");
  expect("STOR dir/Projects", "150 ");
  data.write("hello");
  EXPECT_THAT(command("STAT"), HasSubstr(" STOR /dir/Projects: "));
  data.write("hello");
  data.close();
  expect_reply("226 ");
}

TEST_F(RootTest, NobodyIsServedWithoutIt) {
  const auto answer = [this](auto how) {
    script.stat = [how](auto op, auto* info) { how(op, info); };
    connect();
    command("USER alice");
    const std::string said = command("PASS secret");
    close_session();
    return said;
  };
  const std::string gone = "530 The folder that is this account's root is not there.\r\n";
  using op_t = tarvex_gfs_operation_t;
  using info_t = tarvex_gfs_stat_info_t*;
  EXPECT_EQ(answer([](op_t op, info_t info) {
              tarvex_gridftp_server_finished_stat(op, not_found(info->pathname), nullptr, 0);
            }),
            gone);
  EXPECT_EQ(answer([](op_t op, info_t) { answer_item(op, false, 5); }), gone);
  EXPECT_EQ(answer([](op_t op, info_t info) {
              const std::string line = "GridFTP-Path: " + std::string(info->pathname);
              tarvex_gridftp_server_finished_stat(op, refusal("PERMISSION_DENIED", line), nullptr, 0);
            }),
            "530-PERMISSION_DENIED\r\n530-GridFTP-Path: /\r\n530 End.\r\n");
  EXPECT_THAT(answer([](op_t op, info_t) {
                play({.status = 503});
                tarvex_gridftp_server_finished_stat(op, refusal("NOT_A_DIRECTORY", "x"), nullptr, 0);
              }),
              StartsWith("421"));
}

}  // namespace
}  // namespace tarvex::server::test
