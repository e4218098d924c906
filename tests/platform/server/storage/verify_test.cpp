#include "storage/store_fixture.h"

#include <sys/stat.h>

#include <chrono>
#include <deque>
#include <map>

namespace tarvex::server::test {
namespace {

using namespace std::chrono_literals;

constexpr const char* SHA1_OF_HELLO = "aaf4c61ddcc5e8a2dabede0f3b482cd9aea9434d";
constexpr const char* DIGEST_OF_HELLO = "sha=qvTGHdzF6KLavt4PO0gs2a6pQ00=";
constexpr int FOLDER = -1;
constexpr int OK = 0;

constexpr exchange LOST_DELETE = {"DELETE", 0};
constexpr exchange LOST_PUT = {"PUT", 0};
constexpr exchange DROPPED_SESSION = {"DELETE", 204, nullptr, nullptr, "/api/2.0/files/upload_sessions/A"};

exchange removal(int status) {
  return {"DELETE", status};
}
exchange renaming(int status) {
  return {"PUT", status, "application/json"};
}
exchange making(int status) {
  return {"POST", status, "application/json"};
}
exchange upload(int status) {
  return {"POST", status, "multipart/form-data; boundary=x"};
}
exchange commit(int status) {
  return {"POST", status, "application/json", DIGEST_OF_HELLO};
}

/// A storage before a Box whose answers and deeds are told for each request.
class VerifyTest : public StoreTest {
 protected:
  /// What Box does, and what the storage makes of it.
  struct deed {
    std::vector<exchange> exchanges;
    std::map<std::string, int> makes = {};  ///< path and size
    const char* removes = "";
    int code = OK;  ///< of the storage's error; 1: one without
    const char* word = "";
  };

  VerifyTest() {
    script.start = [this](auto op, auto*) {
      ++starts;
      tarvex_result_release(tarvex_gridftp_server_set_checksum_support(op, "SHA1:1;"));
      tarvex_gridftp_server_finished_session_start(op, TARVEX_SUCCESS, nullptr, nullptr, "/");
    };
    script.stat = [this](auto op, tarvex_gfs_stat_info_t* info) { stat(op, *info); };
    script.command = [this](auto op, tarvex_gfs_command_info_t* info) {
      if (info->command == TARVEX_GFS_CMD_CKSM)
        return tarvex_gridftp_server_finished_command(op, TARVEX_SUCCESS, sha1.c_str());
      tarvex_gridftp_server_finished_command(op, act(), nullptr);
    };
    script.recv = [this](auto op, auto* info) {
      note(op, info);
      tarvex_gridftp_server_begin_transfer(op, 0, nullptr);
      take_all(op, 100'000);
      tarvex_gridftp_server_finished_transfer(op, act());
    };
    log_in();
  }

  /// Makes ready for a row: "/file" and "/dir" are there, and nothing has been looked at.
  void prepare(const std::deque<deed>& next) {
    there = {{"/", FOLDER}, {"/dir", FOLDER}, {"/file", 5}};
    sha1 = SHA1_OF_HELLO;
    box_is_silent = false;
    deeds = next;
    looks = 0;
    calls = 0;
  }

  std::map<std::string, int> there;  ///< paths and sizes
  std::string sha1;                  ///< of all files
  std::deque<deed> deeds;
  int looks = 0, starts = 0;
  bool box_is_silent = false;  ///< when it is asked for a listing

 private:
  void stat(tarvex_gfs_operation_t op, const tarvex_gfs_stat_info_t& info) {
    const std::string path = info.pathname;
    const auto found = there.find(path);
    if (found == there.end()) return tarvex_gridftp_server_finished_stat(op, not_found(path.c_str()), nullptr, 0);
    if (info.file_only) return answer_item(op, found->second == FOLDER, found->second);
    ++looks;
    play({"GET", box_is_silent ? 0 : 200});
    if (box_is_silent) return tarvex_gridftp_server_finished_stat(op, TARVEX_FAILURE, nullptr, 0);
    std::vector<tarvex_gridftp_server_control_stat_t> entries;
    for (const auto& [item, size] : there) {
      tarvex_gridftp_server_control_stat_t entry{};
      entry.name = const_cast<char*>(item.c_str()) + 1;
      entry.mode = size == FOLDER ? S_IFDIR | 0700 : S_IFREG | 0600;
      entry.size = size;
      if (item != "/") entries.push_back(entry);
    }
    tarvex_gridftp_server_finished_stat(op, TARVEX_SUCCESS, entries.data(), static_cast<int>(entries.size()));
  }

  tarvex_result_t act() {
    if (deeds.empty()) return tarvex_error_put(nullptr);
    const deed now = deeds.front();
    deeds.pop_front();
    for (const exchange& over : now.exchanges) play(over);
    there.insert(now.makes.begin(), now.makes.end());
    there.erase(now.removes);
    if (now.code == OK) return TARVEX_SUCCESS;
    if (now.code == 1) return TARVEX_FAILURE;
    return tarvex_error_put(tarvex_gfs_ftp_response_error_construct(nullptr, nullptr, now.code, now.word, nullptr));
  }
};

struct change_row {
  const char* line;
  std::vector<exchange> exchanges;
  bool done;  ///< by Box
  int code;   ///< of the storage's error
  const char *word, *reply;
  int looks;
};

TEST_F(VerifyTest, ChangesAreConfirmedWhenTheyAreDone) {
  const change_row rows[] = {
      {"DELE file", {removal(204)}, false, OK, "", "250 ", 0},  // what Box says counts, though a listing may lag
      {"DELE file", {removal(202)}, true, OK, "", "250 ", 1},
      {"DELE file", {removal(202)}, false, OK, "", "451-NOT_DONE\r\n451-Box has not removed /file", 2},
      {"DELE file", {removal(412)}, true, OK, "", "250 ", 1},
      {"DELE file", {removal(412)}, false, OK, "", "451-NOT_DONE", 2},
      {"DELE file", {LOST_DELETE}, true, 1, "", "250 ", 1},
      {"RMD dir", {LOST_DELETE}, false, 1, "", "451 Operation failed.", 2},
      {"SITE RDEL dir", {removal(503), removal(404)}, true, 550, "PATH_NOT_FOUND", "250 ", 1},
      {"DELE file", {removal(403)}, false, 550, "PERMISSION_DENIED", "550 PERMISSION_DENIED", 0},
      {"DELE file", {removal(400)}, false, 1, "", "550 Operation failed.", 0},
      {"DELE file", {removal(500)}, true, 500, "INTERNAL_ERROR", "250 ", 1},
      {"RNTO new", {renaming(200)}, true, OK, "", "250 ", 0},
      {"RNTO new", {LOST_PUT}, true, 1, "", "250 ", 2},
      {"RNTO new", {LOST_PUT}, false, 1, "", "451 Operation failed.", 2},
      {"RNTO new", {renaming(412)}, false, OK, "", "451-NOT_DONE", 2},
      {"RNTO new", {renaming(409)}, false, 553, "PATH_EXISTS", "553 PATH_EXISTS", 0},
      {"MKD new", {making(201)}, true, OK, "", "257 \"/new\"", 0},
      {"MKD new", {making(0)}, true, 1, "", "257 \"/new\"", 1},
      {"MKD new", {making(0), making(409)}, true, 553, "PATH_EXISTS", "257 \"/new\"", 2},
      {"MKD new", {making(504)}, false, 1, "", "451 Operation failed.", 2},
      {"MKD new", {making(202)}, false, OK, "", "451-NOT_DONE", 2},
  };
  for (const auto& row : rows) {
    const std::string line = row.line;
    SCOPED_TRACE(testing::Message() << line << " " << row.exchanges[0].status << " " << row.done);
    deed what = {.exchanges = row.exchanges, .code = row.code, .word = row.word};
    if (row.done && line.ends_with("new")) what.makes = {{"/new", line[0] == 'M' ? FOLDER : 5}};
    if (row.done && !line.starts_with("MKD")) what.removes = line.ends_with("dir") ? "/dir" : "/file";
    prepare({what});
    if (line.starts_with("RNTO")) command("RNFR file");
    looks = 0;
    expect(line, row.reply);
    EXPECT_EQ(looks, row.looks);
  }
}

/// Another's file at the target does not make a rename that was not done a success, nor a file an MKD.
TEST_F(VerifyTest, WhatOthersPutThereIsNotWhatWasAskedFor) {
  prepare({{.exchanges = {LOST_PUT}, .makes = {{"/new", 5}}, .code = 1}});
  expect({{"RNFR file", "350 "}, {"RNTO new", "451 "}});
  prepare({{.exchanges = {making(0)}, .makes = {{"/new", 5}}, .code = 1}});
  expect("MKD new", "451 ");
}

/// What nobody knows is said so, and the storage trusts nothing there any more.
TEST_F(VerifyTest, WhereBoxCannotBeLookedAtADoubtStays) {
  for (const char* line : {"DELE file", "RNTO new", "MKD new"}) {
    prepare({{.exchanges = {LOST_DELETE, LOST_PUT, making(0)}, .code = 1}});
    command("RNFR file");
    if (line[0] != 'R') command("NOOP");
    starts = 0;
    box_is_silent = true;
    expect(line, "451-OUTCOME_UNKNOWN");
    expect("SIZE dir", "550 ");
    EXPECT_EQ(starts, 0);
    expect(line[0] == 'D' ? "SIZE file" : "SIZE new", line[0] == 'D' ? "213 " : "550-");
    EXPECT_EQ(starts, 1) << line;
  }
}

TEST_F(VerifyTest, StoresAreConfirmedWhenBoxHasTheFile) {
  const struct {
    std::vector<exchange> exchanges;
    int size;  ///< of what Box has then; 0: nothing
    const char* sha1;
    int code;
    const char *word, *reply;
    int looks;
  } rows[] = {
      {{upload(201)}, 5, "", OK, "", "226 ", 0},
      {{upload(201)}, 4, "", OK, "", "451-NOT_DONE", 1},
      {{upload(202)}, 0, "", OK, "", "451-NOT_DONE", 2},
      {{upload(202)}, 5, SHA1_OF_HELLO, OK, "", "226 ", 1},
      {{upload(412)}, 0, "", OK, "", "451-NOT_DONE", 2},
      {{upload(409)}, 5, SHA1_OF_HELLO, 553, "PATH_EXISTS", "553 PATH_EXISTS", 0},  // another's
      {{upload(0)}, 5, SHA1_OF_HELLO, 1, "", "226 ", 1},
      {{upload(0)}, 4, SHA1_OF_HELLO, 1, "", "451 Operation failed.", 1},
      {{upload(0)}, 5, "other", 1, "", "451 Operation failed.", 1},
      {{upload(500), upload(409)}, 5, SHA1_OF_HELLO, 553, "PATH_EXISTS", "226 ", 1},
      {{commit(202), commit(410)}, 5, SHA1_OF_HELLO, 1, "", "226 ", 1},
      {{commit(0)}, 5, "other", 1, "", "451 Operation failed.", 1},
      {{commit(201), making(500)}, 5, SHA1_OF_HELLO, 1, "", "226 ", 1},  // the property after the commit
      {{removal(204), upload(400)}, 0, "", 1, "", "550-Operation failed.\r\n550-The former /new is in the trash", 0},
      {{DROPPED_SESSION, upload(400)}, 0, "", 1, "", "550 Operation failed.\r\n", 0},
      {{upload(200)}, 5, "", OK, "", "226 ", 0},          // a new version of a file
      {{making(201)}, 0, "", OK, "", "451-NOT_DONE", 0},  // no bytes went to Box at all
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << row.exchanges[0].status << " " << row.size << row.sha1 << row.word);
    deed what = {.exchanges = row.exchanges, .code = row.code, .word = row.word};
    if (row.size > 0) what.makes = {{"/new", row.size}};
    prepare({what});
    sha1 = row.sha1;
    expect_store("new", "hello", row.reply);
    EXPECT_EQ(looks, row.looks);
    EXPECT_EQ(calls, 1);
  }
}

/// A storage that Box was too busy for has stored nothing, and the data are still here, when they are.
TEST_F(VerifyTest, StoresOfWhichNothingWasStoredAreRunAgain) {
  const struct {
    const char* allo;
    std::vector<exchange> first;
    bool taken;  ///< the name, meanwhile
    int calls;
    const char* reply;
  } rows[] = {
      {"NOOP", {upload(429)}, false, 2, "226 "},           {"NOOP", {upload(429)}, true, 1, "451 TOO_BUSY"},
      {"NOOP", {commit(429)}, false, 1, "451 TOO_BUSY"},   {"NOOP", {upload(0), upload(429)}, false, 1, "451 TOO_BUSY"},
      {"ALLO 5", {upload(429)}, false, 1, "451 TOO_BUSY"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << row.allo << row.taken << row.first[0].status);
    deed busy = {.exchanges = row.first, .code = 451, .word = "TOO_BUSY"};
    if (row.taken) busy.makes = {{"/new", 3}};
    prepare({busy, {.exchanges = {upload(201)}, .makes = {{"/new", 5}}}});
    command(row.allo);
    const auto start = std::chrono::steady_clock::now();
    expect_store("new", "hello", row.reply);
    EXPECT_EQ(calls, row.calls);
    EXPECT_TRUE(row.calls == 1 || std::chrono::steady_clock::now() - start >= 1s);
    EXPECT_EQ(seen.bytes, "hello");
  }
}

}  // namespace
}  // namespace tarvex::server::test
