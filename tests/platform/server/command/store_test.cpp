#include "storage/store_fixture.h"

#include <deque>

namespace tarvex::server::test {
namespace {

/// Bytes that are not the same at any two places near each other.
std::string numbered(std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i ^ (i >> 8) ^ (i >> 16));
  return bytes;
}

TEST_F(StoreTest, AsManyBytesAsAnnouncedOrNothing) {
  log_in();
  constexpr std::size_t SIZE = 250'000;
  struct {
    std::string announced;
    std::size_t sent;
    std::string expected;
  } const rows[] = {
      {"ALLO 250000", SIZE, "226 Transfer complete; 250000 bytes received."},
      {"ALLO 250000 R 512", SIZE, "226 "},
      {"ALLO 250000", SIZE - 1, "426 The data ended after 249999 of 250000 bytes that were announced."},
      {"ALLO 250000", 0, "426 "},
      {"ALLO 250000", SIZE + 1, "552 More data came than the 250000 bytes that were announced."},
      {"ALLO 0", SIZE, "226 "},
      {"NOOP", SIZE, "226 "},  // what was announced before counts no more
      {"NOOP", 1, "226 "},
      {"NOOP", 0, "226 Transfer complete; 0 bytes received."},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.announced + ", sent: " + std::to_string(row.sent));
    const std::string bytes = numbered(row.sent);
    command(row.announced);
    expect_store("new", bytes, row.expected);
    const bool stored = row.expected.starts_with("226 ");
    EXPECT_EQ(seen.good_end, stored);
    if (!stored) continue;
    EXPECT_TRUE(seen.bytes == bytes);
    EXPECT_EQ(seen.info.alloc_size, row.sent);
    EXPECT_TRUE(seen.info.truncate);
    EXPECT_EQ(seen.offset, 0);
    EXPECT_EQ(seen.length, static_cast<tarvex_off_t>(row.sent));
  }
}

/// Several reads in flight, of odd lengths, begun when more has come than they hold: nothing is lost or mixed up.
TEST_F(StoreTest, ReadsKeepTheOrderOfTheData) {
  log_in();
  const std::string bytes = numbered(45'000'001);
  for (const std::size_t piece : {std::size_t{40'009}, std::size_t{3'000'017}}) {
    std::promise<void> much_has_come;
    script.recv = [&](auto op, auto* info) {
      note(op, info);
      tarvex_gridftp_server_begin_transfer(op, 0, nullptr);
      much_has_come.get_future().wait();
      std::deque<std::future<read_seen>> reads;
      while (!seen.good_end) {
        while (reads.size() < 5) reads.push_back(read_register(op, piece));
        const read_seen read = reads.front().get();
        reads.pop_front();
        ASSERT_FALSE(read.failed);
        ASSERT_EQ(static_cast<std::size_t>(read.offset), seen.bytes.size());
        seen.bytes += read.bytes;
        seen.good_end = read.eof;
      }
      tarvex_gridftp_server_finished_transfer(op, TARVEX_SUCCESS);
    };
    loopback_socket data = passive();
    command("ALLO 45000001");
    expect("STOR new", "150 ");
    data.write(bytes.substr(0, 12'000'000));
    much_has_come.set_value();
    data.write(bytes.substr(12'000'000));
    data.close();
    expect_reply("226 ");
    EXPECT_TRUE(seen.bytes == bytes);
  }
}

/// A slow client's bytes are passed on before a read is full: whoever sends them on must not be taken for idle.
TEST_F(StoreTest, PartlyFilledReadsAreDoneToo) {
  std::promise<void> first_came;
  script.recv = [&](auto op, auto* info) {
    note(op, info);
    tarvex_gridftp_server_begin_transfer(op, 0, nullptr);
    EXPECT_EQ(read_register(op, 11).get().bytes, "hello");
    first_came.set_value();
    EXPECT_EQ(read_register(op, 6).get().bytes, " world");
    EXPECT_FALSE(read_register(op, 0).get().failed);
    tarvex_gridftp_server_finished_transfer(op, TARVEX_SUCCESS);
  };
  log_in();
  loopback_socket data = passive();
  command("ALLO 11");
  expect("STOR new", "150 ");
  data.write("hello");
  first_came.get_future().wait();
  EXPECT_THAT(command("STAT"), testing::HasSubstr("STOR /new: 5 bytes received"));
  data.write(" world");
  data.close();
  expect_reply("226 ");
}

TEST_F(StoreTest, SpooledDataHaveTheirLimits) {
  config.spool_limit_bytes = 100'000;
  log_in();
  for (const std::size_t size : {std::size_t{100'001}, std::size_t{3'000'000}}) {
    expect_store("new", numbered(size), "452 The server holds at most 100");
    EXPECT_EQ(calls, 0);
  }
  expect_store("new", numbered(100'000), "226 ");
  command("ALLO 100001");
  expect_store("new", numbered(100'001), "226 ");
}

/// Where nothing can be stored the storage is not asked, since its first act is to make room.
TEST_F(StoreTest, HopelessStoresAreRefusedBeforeAnythingIsTouched) {
  log_in();
  struct {
    std::vector<std::string> lines;
    std::string expected;
  } const rows[] = {
      {{"STOR new"}, "425 "},
      {{"EPSV", "STOR missing/new"}, "550-PATH_NOT_FOUND\r\n550-GridFTP-Path: \"/missing\"\r\n550 End.\r\n"},
      {{"EPSV", "STOR file/new"}, "550-PATH_NOT_FOUND\r\n550-GridFTP-Path: \"/file/new\"\r\n550 End.\r\n"},
      {{"EPSV", "STOR dir"}, "553 "},
      {{"EPSV", "STOR /"}, "553 "},
      {{"EPSV", "APPE file"}, "553 "},
      {{"APPE new"}, "553 "},
      {{"EPSV", "REST 2", "STOR file"}, "553 "},
      {{"EPSV", "REST 2", "STOR new"}, "553 "},
  };
  for (const auto& row : rows) {
    std::string answer;
    for (const auto& line : row.lines) answer = command(line);
    EXPECT_THAT(answer, StartsWith(row.expected)) << testing::PrintToString(row.lines);
  }
  EXPECT_EQ(calls, 0);
}

TEST_F(StoreTest, ModificationTimesAreForTheNextStoreOnly) {
  log_in();
  struct {
    const char *line, *answer;
    time_t expected;
  } const rows[] = {
      {"STORATTR modify=20200102030405;", "200 ", 1577934245}, {"NOOP", "200 ", -1},
      {"SITE STORATTR modify=19700101000001;", "200 ", 1},     {"STORATTR Modify=20200102030405", "200 ", 1577934245},
      {"STORATTR modify=20200230000000;", "501 ", -1},         {"STORATTR modify=2020;", "501 ", -1},
      {"STORATTR size=20200102030405;", "501 ", -1},
  };
  for (const auto& row : rows) {
    expect(row.line, row.answer);
    expect_store("new", "x", "226 ");
    EXPECT_EQ(seen.modified, row.expected) << row.line;
  }
}

}  // namespace
}  // namespace tarvex::server::test
