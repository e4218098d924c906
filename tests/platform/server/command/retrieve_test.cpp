#include "session_fixture.h"

namespace tarvex::server::test {
namespace {

/// The file has five bytes.
TEST_F(SessionTest, RestartOffsetIsUsedOnce) {
  std::vector<tarvex_off_t> asked;
  script.send = [&](auto op, auto*) {
    tarvex_off_t offset = -1, length = -1;
    tarvex_gridftp_server_begin_transfer(op, 0, nullptr);
    tarvex_gridftp_server_get_read_range(op, &offset, &length);
    asked.push_back(offset);
    EXPECT_EQ(length, -1);
    EXPECT_TRUE(write_and_wait(op, std::string("hello").substr(static_cast<std::size_t>(offset)), offset));
    tarvex_gridftp_server_get_read_range(op, &offset, &length);
    EXPECT_EQ(length, 0);
    tarvex_gridftp_server_finished_transfer(op, TARVEX_SUCCESS);
  };
  log_in();
  using offsets = std::vector<tarvex_off_t>;
  const struct {
    std::vector<std::pair<std::string, std::string>> lines;
    offsets expected;
    const char* reply;
  } rows[] = {
      {{{"REST 3", "350 "}}, {3}, "226 "},
      {{}, {0}, "226 "},
      {{{"REST 5", "350 "}}, {}, "226 Transfer complete; 0 bytes"},  // storages refuse to send nothing
      {{{"REST 9223372036854775808", "501 "}}, {0}, "226 "},
      {{{"REST 2", "350 "}, {"REST -1", "501 "}}, {0}, "226 "},
      {{{"REST 2", "350 "}, {"REST 2x", "501 "}}, {0}, "226 "},
      {{{"REST 2", "350 "}, {"TYPE I", "200 "}}, {2}, "226 "},
      {{{"REST 2", "350 "}, {"SIZE file", "213 "}}, {0}, "226 "},
  };
  for (const auto& row : rows) {
    asked.clear();
    const loopback_socket early = passive();
    expect(row.lines);
    expect("RETR file", "150 ");
    expect_reply(row.reply);
    EXPECT_EQ(asked, row.expected) << testing::PrintToString(row.lines);
  }
}

/// A transfer is complete when as many bytes went out as the file has; when others change it, as it has by now.
TEST_F(SessionTest, WhatIsNotTheWholeFileIsNoSuccess) {
  tarvex_off_t listed = 0, known = 5;
  std::string sent;
  script.stat = [&](auto op, tarvex_gfs_stat_info_t* info) {
    const bool folder = std::string_view(info->pathname) == "/";
    if (info->file_only) return answer_item(op, folder, folder ? 0 : known);
    std::string name = listed == 0 ? "other" : "file";
    tarvex_gridftp_server_control_stat_t entry{};
    entry.name = name.data();
    entry.size = listed;
    tarvex_gridftp_server_finished_stat(op, TARVEX_SUCCESS, &entry, 1);
  };
  script.send = [&](auto op, auto*) {
    tarvex_off_t offset = 0, length = 0;
    tarvex_gridftp_server_get_read_range(op, &offset, &length);
    tarvex_gridftp_server_begin_transfer(op, 0, nullptr);
    EXPECT_TRUE(sent.empty() || write_and_wait(op, sent, offset));
    tarvex_gridftp_server_finished_transfer(op, TARVEX_SUCCESS);
  };
  log_in();
  const struct {
    const char *rest, *sent;
    tarvex_off_t listed;  ///< the size that a look again shows; 0: it is gone
    const char *first, *last;
  } rows[] = {
      {"NOOP", "hello", 0, "150 ", "226 "},
      {"NOOP", "", 5, "150 ", "451 The storage sent the file up to byte 0, though it has 5 bytes"},
      {"NOOP", "hell", 5, "150 ", "451 "},
      {"NOOP", "{\"error\": 1}", 5, "150 ", "451 "},
      {"NOOP", "hell", 0, "150 ", "451 "},
      {"NOOP", "longer", 6, "150 ", "226 "},
      {"REST 3", "lo", 0, "150 ", "226 "},
      {"REST 3", "hello", 5, "150 ", "451 "},
      {"REST 6", "x", 7, "150 ", "226 "},
      {"REST 6", "", 6, "150 ", "226 Transfer complete; 0 bytes"},
      {"REST 6", "", 5, "551 The file has 5 bytes", "200 "},
      {"REST 9223372036854775807", "", 5, "551 ", "200 "},
      {"REST 6", "", 0, "550 ", "200 "},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << row.rest << " " << row.sent << row.listed);
    sent = row.sent;
    listed = row.listed;
    const loopback_socket data = passive();
    command(row.rest);
    expect("RETR file", row.first);
    if (row.last[0] == '2' && row.last[1] == '0') control.write("NOOP\r\n");
    expect_reply(row.last);
  }
}

/// Writes at once what goes, and waits for the rest.
bool write_at_once(tarvex_gfs_operation_t op, std::string bytes, tarvex_off_t offset) {
  std::size_t sent = 0;
  const tarvex_result_t result = tarvex_gridftp_server_write_now(
      op, reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(), offset, &sent);
  tarvex_result_release(result);
  EXPECT_TRUE(result == TARVEX_SUCCESS || sent == 0);
  if (result != TARVEX_SUCCESS || sent == bytes.size()) return result == TARVEX_SUCCESS;
  return write_and_wait(op, bytes.substr(sent), offset + static_cast<tarvex_off_t>(sent));
}

/// A download that is tried again goes on where it stopped; one that leaves bytes out fails.
TEST_F(SessionTest, SentBytesAreTrimmedAndGapsRefused) {
  bool gap = false, at_once = false;
  script.stat = [](auto op, auto*) { answer_item(op, false, 60); };
  script.send = [&](auto op, auto*) {
    const auto write = at_once ? write_at_once : write_and_wait;
    tarvex_off_t offset = 0, length = 0;
    tarvex_gridftp_server_get_read_range(op, &offset, &length);
    EXPECT_FALSE(write(op, "early", offset)) << "before begin_transfer";
    tarvex_gridftp_server_begin_transfer(op, 0, nullptr);
    EXPECT_TRUE(write(op, "0123", offset));
    EXPECT_TRUE(write(op, "0123", offset));
    EXPECT_TRUE(write(op, "234567", offset + 2));
    EXPECT_FALSE(write(op, "x", -1));
    EXPECT_NE(write(op, "89", offset + (gap ? 9 : 8)), gap);
    tarvex_gridftp_server_finished_transfer(op, gap ? TARVEX_FAILURE : tarvex_result_t{TARVEX_SUCCESS});
  };
  log_in();
  for (const int row : {0, 1, 2, 3}) {
    gap = (row & 1) != 0;
    at_once = (row & 2) != 0;
    const loopback_socket data = passive();
    expect({{"REST 50", "350 "}, {"RETR file", "150 "}});
    EXPECT_EQ(data.read_all(), gap ? "01234567" : "0123456789");
    expect_reply(gap ? "550 " : "226 ");
  }
}

/// Several writes in flight, not waited for: the final reply waits for them, and their callbacks come once, in order.
TEST_F(SessionTest, OutstandingWritesAreSentBeforeTheEnd) {
  constexpr std::size_t BLOCK = 1 << 20;
  constexpr int BLOCKS = 16;
  std::vector<std::string> blocks;
  std::string expected;
  for (int i = 0; i < BLOCKS; ++i) expected += blocks.emplace_back(BLOCK, static_cast<char>('a' + i));
  std::vector<unsigned char*> done;
  script.stat = [&](auto op, auto*) { answer_item(op, false, static_cast<tarvex_off_t>(expected.size())); };
  script.send = [&](auto op, auto*) {
    tarvex_gridftp_server_begin_transfer(op, 0, nullptr);
    for (std::size_t i = 0; i < blocks.size(); ++i) {
      const auto callback = [](auto, tarvex_result_t result, unsigned char* buffer, size_t, void* list) {
        EXPECT_EQ(result, TARVEX_SUCCESS);
        static_cast<std::vector<unsigned char*>*>(list)->push_back(buffer);
      };
      EXPECT_EQ(tarvex_gridftp_server_register_write(op, reinterpret_cast<unsigned char*>(blocks[i].data()), BLOCK,
                                                     static_cast<tarvex_off_t>(i * BLOCK), 0, callback, &done),
                TARVEX_SUCCESS);
    }
    tarvex_gridftp_server_finished_transfer(op, TARVEX_SUCCESS);
  };
  log_in();
  EXPECT_TRUE(fetch("RETR file") == expected);
  EXPECT_EQ(reply(), "226 Transfer complete; 16777216 bytes sent.\r\n");
  ASSERT_EQ(done.size(), blocks.size());
  for (std::size_t i = 0; i < blocks.size(); ++i) EXPECT_EQ(static_cast<void*>(done[i]), blocks[i].data());
}

/// What belongs to a store is refused in a download, which may fail before it has begun.
TEST_F(SessionTest, DownloadsAreNoStores) {
  script.send = [](auto op, auto*) {
    time_t when = 0;
    for (const tarvex_result_t refused : {tarvex_gridftp_server_get_recv_modification_time(op, &when),
                                          tarvex_gridftp_server_register_read(op, nullptr, 0, nullptr, nullptr)}) {
      EXPECT_NE(refused, static_cast<tarvex_result_t>(TARVEX_SUCCESS));
      tarvex_result_release(refused);
    }
    tarvex_gridftp_server_finished_transfer(op, not_found("/file"));
  };
  log_in();
  const loopback_socket data = passive();
  expect("RETR file", "550-");
}

}  // namespace
}  // namespace tarvex::server::test
