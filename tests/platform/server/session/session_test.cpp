#include "session_fixture.h"

#include <unistd.h>

#include <chrono>
#include <csignal>

namespace tarvex::server::test {
namespace {

/// Sends for ever, as a storage does that waits for each block; ends when told to.
void send_without_end(tarvex_gfs_operation_t op) {
  tarvex_gridftp_server_begin_transfer(op, 0, nullptr);
  const std::string block(256 * 1024, 'x');
  tarvex_off_t offset = 0;
  while (!tarvex_cancel_requested() && write_and_wait(op, block, offset))
    offset += static_cast<tarvex_off_t>(block.size());
  tarvex_gridftp_server_finished_transfer(op, TARVEX_FAILURE);
}

/// Sends nothing for ever.
void send_nothing(tarvex_gfs_operation_t op) {
  tarvex_gridftp_server_begin_transfer(op, 0, nullptr);
  wait_for_cancel();
  tarvex_gridftp_server_finished_transfer(op, TARVEX_FAILURE);
}

enum class stroke { data_closed, data_reset, abort, client_lost, client_lost_with_full_queue, termination };

class InterruptionTest : public SessionTest {
 protected:
  /// Strikes, and reads the replies to it.
  void strike(stroke how, loopback_socket& data) {
    using enum stroke;
    std::string queue;
    for (int i = 0; i < 2000; ++i) queue += "PWD\r\n";
    if (how == data_closed) data.close();
    if (how == data_reset) data.reset();
    if (how == abort) control.write("\xff\xf4\xff\xf2" + std::string("ABOR\r\n"));
    if (how == client_lost_with_full_queue) control.write(queue);
    if (how == termination) raise(SIGTERM);
    if (how <= abort || how == termination) expect_reply("426 ");
    if (how == abort) expect_reply("226 ");
    if (how == termination) expect_reply("421 ");
  }

  /// The session is as good as before.
  void expect_life() {
    script.send = [](auto op, auto*) {
      EXPECT_FALSE(tarvex_cancel_requested());
      tarvex_gridftp_server_begin_transfer(op, 0, nullptr);
      EXPECT_TRUE(write_and_wait(op, "hello", 0));
      tarvex_gridftp_server_finished_transfer(op, TARVEX_SUCCESS);
    };
    EXPECT_EQ(fetch("RETR file"), "hello");
    expect_reply("226 ");
    expect("ABOR", "225 ");
  }
};

TEST_F(InterruptionTest, EndsDownloadsPromptly) {
  using enum stroke;
  config.grace_time_s = 0;
  for (const bool sends : {true, false}) {
    for (const auto how : {data_closed, data_reset, abort, client_lost, client_lost_with_full_queue, termination}) {
      if (!sends && how == data_closed) continue;  // a FIN alone does not end a transfer
      SCOPED_TRACE(testing::Message() << sends << static_cast<int>(how));
      script.send = [sends](auto op, auto*) { sends ? send_without_end(op) : send_nothing(op); };
      script.destroyed = 0;
      log_in();
      loopback_socket data = passive();
      expect("RETR file", "150 ");
      EXPECT_TRUE(!sends || !data.read().empty());
      expect("NOOP", "200 ");
      EXPECT_THAT(command("STAT"), testing::HasSubstr("RETR /file"));
      const auto start = std::chrono::steady_clock::now();
      strike(how, data);
      if (how <= abort) expect_life();
      EXPECT_TRUE(how != termination || ended());
      close_session();
      EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
      EXPECT_EQ(script.destroyed, 1);
    }
  }
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
  config.idle_timeout_s = config.stalled_timeout_s = 1;
  script.send = [](auto op, auto*) { send_without_end(op); };
  log_in();
  const loopback_socket data = passive();
  expect("RETR file", "150 ");
  EXPECT_EQ(reply(), "426 The client took no data for too long.\r\n");
  expect("NOOP", "200 ");
  expect_reply("421 ");
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
    expect("SIZE file", "451 ");
  }
  expect("NOOP", "200 ");
}

}  // namespace
}  // namespace tarvex::server::test
