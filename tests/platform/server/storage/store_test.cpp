#include "storage/store_fixture.h"

#include <chrono>
#include <csignal>
#include <thread>

namespace tarvex::server::test {
namespace {

using namespace std::chrono_literals;

constexpr const char* LARGE = "ALLO 60000000";  // above the size from which storages send parts
constexpr std::size_t PART = 1'000'000;

/// A storage that sends parts: fills a buffer, piece by piece if need be. \return whether it was filled.
bool part_fill(tarvex_gfs_operation_t op) {
  std::size_t length = 0;
  for (bool eof = false; !eof && length < PART;) {
    const read_seen read = read_register(op, PART - length).get();
    length += read.bytes.size();
    eof = read.eof;
  }
  return length == PART;
}

enum class moment { no_connection, in_the_data, storage_busy };
enum class stroke { abort, client_lost, termination };

/// Whatever happens to a store in its course: it ends at once, and the storage sees no end of the data.
TEST_F(StoreTest, InterruptedStoresEndPromptly) {
  config.grace_time_s = 0;
  for (const bool announced : {false, true}) {
    for (const auto when : {moment::no_connection, moment::in_the_data, moment::storage_busy}) {
      for (const auto how : {stroke::abort, stroke::client_lost, stroke::termination}) {
        SCOPED_TRACE(testing::Message() << announced << static_cast<int>(when) << static_cast<int>(how));
        std::promise<void> busy;
        script.recv = [&](auto op, auto* info) {
          note(op, info);
          tarvex_gridftp_server_begin_transfer(op, 0, nullptr);
          if (when == moment::storage_busy) {
            busy.set_value();
            wait_for_cancel();
          }
          take_all(op, PART);
          tarvex_gridftp_server_finished_transfer(op, TARVEX_FAILURE);
        };
        seen = {};
        log_in();
        loopback_socket data = passive();
        if (when == moment::no_connection) command("EPSV");
        if (announced) command("ALLO 5000");
        expect("STOR new", "150 ");
        if (when == moment::in_the_data) data.write("some");
        if (when == moment::storage_busy && announced) data.write("some");
        if (when == moment::storage_busy && !announced) data.close();
        if (when == moment::storage_busy) busy.get_future().wait();
        const auto start = std::chrono::steady_clock::now();
        if (how == stroke::abort) {
          expect("ABOR", "426 ");
          expect_reply("226 ");
          expect("NOOP", "200 ");
        }
        if (how == stroke::termination) {
          raise(SIGTERM);
          expect_reply("426 ");
          expect_reply("421 ");
          EXPECT_TRUE(ended());
        }
        close_session();
        EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
        EXPECT_FALSE(seen.good_end);
      }
    }
  }
}

TEST_F(StoreTest, BrokenAndSilentDataConnectionsAreNoEnd) {
  config.stalled_timeout_s = 1;
  log_in();
  for (const bool announced : {false, true}) {
    for (const bool reset : {false, true}) {
      loopback_socket data = passive();
      if (announced) command("ALLO 4");
      expect("STOR new", "150 ");
      data.write("some");
      while (command("STAT").find(" 4 bytes received") == std::string::npos) continue;
      if (reset) data.reset();
      expect_reply(reset ? "426 The data connection broke:" : "426 The client sent no data for too long.");
      EXPECT_FALSE(seen.good_end);
      expect("NOOP", "200 ");
    }
  }
}

TEST_F(StoreTest, SuccessWithoutAllDataIsNone) {
  log_in();
  script.recv = [&](auto op, auto*) {
    tarvex_gridftp_server_begin_transfer(op, 0, nullptr);
    EXPECT_EQ(read_register(op, 4).get().bytes, "some");
    tarvex_gridftp_server_finished_transfer(op, TARVEX_SUCCESS);
  };
  for (const char* line : {"NOOP", "ALLO 4"}) {
    command(line);
    expect_store("new", "some", "451 ");
  }
}

/// An upload that was cut off goes on where its first unfinished part begins, and nowhere else.
TEST_F(StoreTest, CutUploadsGoOnAtOnePlace) {
  script.recv = [&](auto op, auto* info) {
    note(op, info);
    if (!info->truncate) return tarvex_gridftp_server_finished_transfer(op, not_found("/new"));
    tarvex_gridftp_server_begin_transfer(op, 0, nullptr);
    while (part_fill(op)) continue;
    tarvex_gridftp_server_finished_transfer(op, TARVEX_FAILURE);
  };
  log_in();
  command(LARGE);
  const std::string cut = store("new", std::string(3 * PART + 5, 'x'));
  EXPECT_THAT(cut, testing::HasSubstr("send REST 3000000 and STOR"));
  struct {
    std::string rest, allo, path, expected;
    bool asked;
  } const rows[] = {
      {"REST 2000000", "NOOP", "new", "553 This upload can go on with REST 3000000 only.", false},
      {"REST 3000005", "NOOP", "new", "553 ", false},
      {"REST 3000000", "ALLO 59999999", "new", "553 ", false},
      {"REST 3000000", "ALLO 60000000", "other", "553 ", false},
      {"REST 3000000", "ALLO 60000000", "new", "550-PATH_NOT_FOUND", true},
      {"REST 3000000", "ALLO 57000000", "new", "550-PATH_NOT_FOUND", true},
      {"REST 3000000", "STRU F", "new", "550-PATH_NOT_FOUND", true},
  };
  for (const auto& row : rows) {
    seen = {};
    const loopback_socket data = passive();
    command(row.allo == "NOOP" ? "STRU F" : row.allo);
    command(row.rest);
    expect("STOR " + row.path, row.expected);
    EXPECT_EQ(seen.offset, row.asked ? 3'000'000 : 0);
    EXPECT_EQ(seen.length, row.asked ? -1 : 0);
    EXPECT_EQ(seen.info.alloc_size, row.asked ? 60'000'000U : 0U);
  }
}

/// What a storage keeps of a failed upload is in the way of one that starts afresh, so its session starts afresh too.
TEST_F(StoreTest, FailedUploadsMayBeTriedAgain) {
  int starts = 0;
  char handles[9];  // one for each session
  const auto start = [&](auto op, tarvex_gfs_session_info_t* info) {
    EXPECT_STREQ(info->username, "alice");
    tarvex_gridftp_server_finished_session_start(op, TARVEX_SUCCESS, &handles[++starts], nullptr, "/");
  };
  script.start = start;
  log_in();
  command(LARGE);
  expect_store("new", "x", "426 ");
  expect_store("other", "x", "226 ");
  EXPECT_EQ(starts, 1);
  expect_store("new", "x", "226 ");
  EXPECT_EQ(starts, 2);
  EXPECT_EQ(script.destroyed, 1);
  expect_store("new", "x", "226 ");
  EXPECT_EQ(starts, 2);
  command(LARGE);
  expect_store("new", "x", "426 ");
  script.start = [](auto op, auto*) {
    tarvex_gridftp_server_finished_session_start(op, not_found("/"), nullptr, nullptr, nullptr);
  };
  expect_store("new", "x", "550-PATH_NOT_FOUND");
  script.start = start;
  expect_store("new", "x", "226 ");
}

/// What is left of a broken upload stays until it is continued, stored afresh or renamed away.
TEST_F(StoreTest, OtherStoresDoNotForgetABrokenUpload) {
  script.command = [](auto op, auto*) { tarvex_gridftp_server_finished_command(op, TARVEX_SUCCESS, nullptr); };
  log_in();
  const std::pair<const char*, bool> rows[] = {
      {"RNTO other", true}, {"MKD x", true}, {"DELE file", true}, {"RNTO new", false}, {"RNTO dir", false},
  };
  for (const auto& [line, kept] : rows) {
    script.recv = [&](auto op, auto* info) {
      note(op, info);
      tarvex_gridftp_server_begin_transfer(op, 0, nullptr);
      while (part_fill(op)) continue;
      tarvex_gridftp_server_finished_transfer(op, TARVEX_FAILURE);
    };
    const std::string path = std::string(line) == "RNTO dir" ? "dir/new" : "new";
    command(LARGE);
    EXPECT_THAT(store(path, std::string(PART + 5, 'x')), testing::HasSubstr("send REST 1000000"));
    script.recv = [&](auto op, auto* info) {
      note(op, info);
      tarvex_gridftp_server_begin_transfer(op, 0, nullptr);
      take_all(op, PART);
      tarvex_gridftp_server_finished_transfer(op, TARVEX_SUCCESS);
    };
    expect_store("unrelated", "x", "226 ");
    command("RNFR file");
    command(line);
    seen = {};
    const loopback_socket data = passive();
    expect({{"REST 1000000", "350 "}, {"STOR " + path, kept ? "150 " : "553 "}});
    if (kept) expect("ABOR", "426 ");
    if (kept) expect_reply("226 ");
  }
}

TEST_F(StoreTest, WhoeverSpeaksBehindTheDataIsAlive) {
  config.end_grace_ms = 3000;
  log_in();
  for (const char* path : {"new", "file"}) {
    for (const char* line : {"NOOP", "PWD"}) {
      SCOPED_TRACE(std::string(path) + " " + line);
      const auto start = std::chrono::steady_clock::now();
      loopback_socket data = passive();
      expect(std::string("STOR ") + path, "150 ");
      data.write("some");
      data.close();
      std::this_thread::sleep_for(50ms);
      control.write(std::string(line) + "\r\n");
      EXPECT_THAT(reply() + reply(), testing::HasSubstr("226 "));
      EXPECT_TRUE(seen.good_end);
      EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
    }
  }
  const auto start = std::chrono::steady_clock::now();
  command("ALLO 4");
  expect_store("file", "some", "226 ");  // as many as announced need no grace
  EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
}

/// What exists is deleted by the storage's first step, which waits for some of a large file, not for all of it.
TEST_F(StoreTest, AGoodBeginningOfALargeFileIsEnough) {
  log_in();
  loopback_socket data = passive();
  command(LARGE);
  expect("STOR file", "150 ");
  data.write(std::string(8 << 20, 'x'));
  const auto limit = std::chrono::steady_clock::now() + 5s;
  while (calls == 0 && std::chrono::steady_clock::now() < limit) std::this_thread::sleep_for(1ms);
  EXPECT_EQ(calls, 1);
  data.close();
  expect_reply("426 ");
}

}  // namespace
}  // namespace tarvex::server::test
