#include "core_session_fixture.h"

#include <unistd.h>
#include <cerrno>
#include <chrono>
#include <csignal>

namespace tarvex::server::test {
namespace {

constexpr std::chrono::milliseconds PROMPT{1000};

/// Sends for ever, as a storage does that waits for each block; ends when told to.
void send_without_end(tarvex_gfs_operation_t op) {
  tarvex_gridftp_server_begin_transfer(op, 0, nullptr);
  const std::string block(256 * 1024, 'x');
  tarvex_off_t offset = 0;
  while (!tarvex_cancel_requested() && write_and_wait(op, block, offset))
    offset += static_cast<tarvex_off_t>(block.size());
  tarvex_gridftp_server_finished_transfer(op, TARVEX_FAILURE);
}

/// Sleeps as a storage does that waits for an answer.
void wait_for_cancel(tarvex_gfs_operation_t op) {
  tarvex_gridftp_server_begin_transfer(op, 0, nullptr);
  const timespec long_time{60, 0};
  EXPECT_EQ(tarvex_sleep(&long_time), ECANCELED);
  tarvex_gridftp_server_finished_transfer(op, TARVEX_FAILURE);
}

class stopwatch {
 public:
  ~stopwatch() { EXPECT_LT(std::chrono::steady_clock::now() - start_, PROMPT); }

 private:
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

TEST_F(SessionTest, RestartOffsetIsUsedOnce) {
  std::vector<tarvex_off_t> asked;
  script.send = [&](auto op, auto*) {
    tarvex_off_t offset = -1, length = -1;
    tarvex_gridftp_server_begin_transfer(op, 0, nullptr);
    tarvex_gridftp_server_get_read_range(op, &offset, &length);
    asked.push_back(offset);
    EXPECT_EQ(length, -1);
    tarvex_gridftp_server_get_read_range(op, &offset, &length);
    EXPECT_EQ(length, 0);
    tarvex_gridftp_server_finished_transfer(op, TARVEX_SUCCESS);
  };
  log_in();
  struct {
    std::vector<std::string> lines;
    std::string last_reply;
    tarvex_off_t expected;
  } const rows[] = {
      {{"REST 100"}, "350 ", 100},
      {{}, "", 0},
      {{"REST 9223372036854775807"}, "350 ", 9223372036854775807},
      {{"REST 9223372036854775808"}, "501 ", 0},
      {{"REST 7", "REST -1"}, "501 ", 0},
      {{"REST 7", "REST 7x"}, "501 ", 0},
      {{"REST 7", "TYPE I"}, "200 ", 7},
      {{"REST 7", "SIZE file"}, "213 ", 0},
  };
  for (const auto& row : rows) {
    const loopback_socket early = passive();
    std::string answer;
    for (const auto& line : row.lines) answer = command(line);
    EXPECT_EQ(answer.substr(0, 4), row.last_reply);
    EXPECT_EQ(command("RETR file").substr(0, 4), "150 ");
    EXPECT_EQ(reply().substr(0, 4), "226 ");
    EXPECT_EQ(asked.back(), row.expected) << testing::PrintToString(row.lines);
  }
}

/// A download that is tried again goes on where it stopped; one that leaves bytes out fails.
TEST_F(SessionTest, SentBytesAreTrimmedAndGapsRefused) {
  bool gap = false;
  script.send = [&](auto op, auto*) {
    tarvex_off_t offset = 0, length = 0;
    tarvex_gridftp_server_get_read_range(op, &offset, &length);
    EXPECT_FALSE(write_and_wait(op, "early", offset)) << "before begin_transfer";
    tarvex_gridftp_server_begin_transfer(op, 0, nullptr);
    EXPECT_TRUE(write_and_wait(op, "0123", offset));
    EXPECT_TRUE(write_and_wait(op, "0123", offset));
    EXPECT_TRUE(write_and_wait(op, "234567", offset + 2));
    EXPECT_FALSE(write_and_wait(op, "x", -1));
    EXPECT_NE(write_and_wait(op, "89", offset + (gap ? 9 : 8)), gap);
    tarvex_gridftp_server_finished_transfer(op, gap ? TARVEX_FAILURE : tarvex_result_t{TARVEX_SUCCESS});
  };
  log_in();
  for (const bool with_gap : {false, true}) {
    gap = with_gap;
    const loopback_socket data = passive();
    command("REST 50");
    EXPECT_EQ(command("RETR file").substr(0, 4), "150 ");
    EXPECT_EQ(data.read_all(), with_gap ? "01234567" : "0123456789");
    EXPECT_EQ(reply().substr(0, 4), with_gap ? "500 " : "226 ");
  }
}

/// Several writes in flight, not waited for: the final reply waits for them, and their callbacks come once, in order.
TEST_F(SessionTest, OutstandingWritesAreSentBeforeTheEnd) {
  constexpr std::size_t BLOCK = 1 << 20;
  constexpr int BLOCKS = 16;
  std::vector<std::string> blocks;
  for (int i = 0; i < BLOCKS; ++i) blocks.emplace_back(BLOCK, static_cast<char>('a' + i));
  std::vector<unsigned char*> done;
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
  const loopback_socket data = passive();
  EXPECT_EQ(command("RETR file").substr(0, 4), "150 ");
  std::string expected, got = data.read_all();
  for (const auto& block : blocks) expected += block;
  EXPECT_TRUE(got == expected);
  EXPECT_EQ(reply(), "226 Transfer complete; 16777216 bytes sent.\r\n");
  ASSERT_EQ(done.size(), blocks.size());
  for (std::size_t i = 0; i < blocks.size(); ++i) EXPECT_EQ(static_cast<void*>(done[i]), blocks[i].data());
}

TEST_F(SessionTest, EarlyCloseAndAbortEndTheTransferAlone) {
  log_in();
  for (const bool sends : {true, false}) {
    for (const char* how : {"close", "reset", "ABOR"}) {
      if (!sends && how == std::string("close")) continue;  // a FIN alone does not end a transfer
      SCOPED_TRACE(how);
      script.send = [sends](auto op, auto*) { sends ? send_without_end(op) : wait_for_cancel(op); };
      loopback_socket data = passive();
      EXPECT_EQ(command("RETR file").substr(0, 4), "150 ");
      if (sends) {
        EXPECT_FALSE(data.read().empty());
      }
      EXPECT_EQ(command("NOOP").substr(0, 4), "200 ");
      EXPECT_NE(command("STAT").find("RETR /file"), std::string::npos);
      const stopwatch prompt;
      if (how == std::string("close")) data.close();
      if (how == std::string("reset")) data.reset();
      if (how == std::string("ABOR"))
        control.write(
            "\xff\xf4\xff\xf2"
            "ABOR\r\n");
      EXPECT_EQ(reply().substr(0, 4), "426 ");
      if (how == std::string("ABOR")) {
        EXPECT_EQ(reply().substr(0, 4), "226 ");
      }
    }
  }
  EXPECT_EQ(command("ABOR").substr(0, 4), "225 ");
  script.send = [](auto op, auto*) {
    EXPECT_FALSE(tarvex_cancel_requested());
    tarvex_gridftp_server_finished_transfer(op, TARVEX_SUCCESS);
  };
  const loopback_socket data = passive();
  EXPECT_EQ(command("RETR file").substr(0, 4), "150 ");
  EXPECT_EQ(data.read_all(), "");
  EXPECT_EQ(reply().substr(0, 4), "226 ");
}

TEST_F(SessionTest, AbortWhileNoDataConnectionHasCome) {
  script.send = [](auto op, auto*) { wait_for_cancel(op); };
  log_in();
  command("EPSV");
  const stopwatch prompt;
  control.write("RETR file\r\nABOR\r\nNOOP\r\n");
  std::string answers = reply();
  if (answers.substr(0, 4) == "150 ") answers = reply();
  EXPECT_EQ(answers.substr(0, 4), "426 ");
  EXPECT_EQ(reply().substr(0, 4), "226 ");
  EXPECT_EQ(reply().substr(0, 4), "200 ");
}

TEST_F(SessionTest, LostControlConnectionEndsEverything) {
  for (const bool sends : {true, false}) {
    for (const bool queue_full : {false, true}) {
      script.send = [sends](auto op, auto*) { sends ? send_without_end(op) : wait_for_cancel(op); };
      script.destroyed = 0;
      log_in();
      const loopback_socket data = passive();
      EXPECT_EQ(command("RETR file").substr(0, 4), "150 ");
      if (sends) {
        EXPECT_FALSE(data.read().empty());
      }
      if (queue_full) {
        std::string lines;
        for (int i = 0; i < 2000; ++i) lines += "PWD\r\n";
        control.write(lines);
      }
      const stopwatch prompt;
      close_session();
      EXPECT_EQ(script.destroyed, 1);
    }
  }
}

TEST_F(SessionTest, TerminationEndsRunningTransfers) {
  script.send = [](auto op, auto*) { wait_for_cancel(op); };
  log_in();
  const loopback_socket data = passive();
  EXPECT_EQ(command("RETR file").substr(0, 4), "150 ");
  raise(SIGTERM);
  EXPECT_EQ(reply().substr(0, 4), "421 ");
  EXPECT_TRUE(ended());
  EXPECT_EQ(script.destroyed, 1);
}

TEST_F(SessionTest, HangingStorageDoesNotKeepTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  script.send = [](auto op, auto*) {
    tarvex_gridftp_server_begin_transfer(op, 0, nullptr);
    while (true) pause();
  };
  const auto run = [&] {
    log_in();
    const loopback_socket data = passive();
    (void)command("RETR file");
    close_session();
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(1), "the storage hangs");
}

TEST_F(SessionTest, IdleClientsAreSentAway) {
  config.idle_timeout_s = 1;
  script.send = [](auto op, auto*) { send_without_end(op); };
  log_in();
  const loopback_socket data = passive();
  EXPECT_EQ(command("RETR file").substr(0, 4), "150 ");
  EXPECT_EQ(reply(), "426 The client took no data for too long.\r\n");
  EXPECT_EQ(command("NOOP").substr(0, 4), "200 ");
  EXPECT_EQ(reply().substr(0, 4), "421 ");
  EXPECT_TRUE(ended());
}

/// A storage that breaks the rule of one completion is answered for with 451, and the session goes on.
TEST_F(SessionTest, OperationsCompleteExactlyOnce) {
  log_in();
  const std::function<void(tarvex_gfs_operation_t)> rows[] = {
      [](auto) {},
      [](auto op) {
        answer_item(op, false, 1);
        answer_item(op, false, 1);
      },
      [](auto op) { tarvex_gridftp_server_finished_transfer(op, TARVEX_SUCCESS); },
      [](auto op) { tarvex_gridftp_server_finished_command(op, not_found("/file"), nullptr); },
      [](auto) { throw std::bad_alloc(); },
  };
  for (const auto& row : rows) {
    script.stat = [&row](auto op, auto*) { row(op); };
    EXPECT_EQ(command("SIZE file").substr(0, 4), "451 ");
  }
  EXPECT_EQ(command("NOOP").substr(0, 4), "200 ");
}

TEST_F(SessionTest, PipelinedCommandsKeepTheirOrder) {
  log_in();
  constexpr int COMMANDS = 500;
  std::string lines;
  for (int i = 0; i < COMMANDS; ++i) lines += i % 2 == 0 ? "SIZE file\r\n" : "PWD\r\n";
  control.write(lines);
  for (int i = 0; i < COMMANDS; ++i) ASSERT_EQ(reply().substr(0, 4), i % 2 == 0 ? "213 " : "257 ") << i;
}

TEST_F(SessionTest, StoresAreRefusedCleanly) {
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
  EXPECT_EQ(command("RETR file").substr(0, 4), "550-");
}

}  // namespace
}  // namespace tarvex::server::test
