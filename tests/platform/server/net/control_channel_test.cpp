#include "net/control_channel.h"

#include "net_fixture.h"

namespace tarvex::server::test {
namespace {

using namespace std::chrono_literals;

/// A channel with its client, and what it has told.
class ControlChannelTest : public NetTest {
 protected:
  void SetUp() override { open(); }

  /// A new channel takes the place of the old one.
  void open() {
    auto [server, other] = connected();
    client = std::move(other);
    channel = std::make_unique<control_channel>(loop, server.release());
    EXPECT_TRUE(channel->start({.on_queued = [this] { ++queued; },
                                .on_half_closed = [this] { ++half_closed; },
                                .on_lost = [this] { ++lost; }}));
  }

  /// The next line; "<end>" when there is none.
  std::string next() {
    const auto line = await(channel->next_line());
    return line ? line->text : "<end>";
  }

  tcp::socket client{loop.context()};
  std::unique_ptr<control_channel> channel;
  int queued = 0, half_closed = 0, lost = 0;
};

TEST_F(ControlChannelTest, LinesAreWaitedForOrAnnounced) {
  EXPECT_EQ(channel->peer().address, client.local_endpoint().address());
  EXPECT_EQ(channel->local().port, client.remote_endpoint().port());
  EXPECT_GT(channel->retransmission_timeout(), 0ms);
  auto line = begin(channel->next_line());
  write(client, "FIRST\r\nSEC");
  EXPECT_TRUE(until([&] { return is_there(line); }));
  EXPECT_EQ(line.get()->text, "FIRST");
  EXPECT_EQ(queued, 0);
  write(client, "OND\r\nTHIRD\r\n");
  EXPECT_TRUE(until([&] { return channel->lines().size() == 2; }));
  EXPECT_EQ(queued, 1);
  EXPECT_EQ(channel->take_line()->text, "SECOND");
  EXPECT_EQ(next(), "THIRD");
  EXPECT_EQ(channel->take_line(), std::nullopt);
}

/// Whoever says nothing more may still want to hear: "printf 'USER a\r\n...' | nc" is a client.
TEST_F(ControlChannelTest, HalfClosedClientsAreServedToTheEnd) {
  write(client, "NOOP\r\nQUIT\r\n");
  client.shutdown(tcp::socket::shutdown_send);
  EXPECT_TRUE(until([&] { return half_closed == 1; }));
  EXPECT_TRUE(channel->half_closed());
  EXPECT_FALSE(channel->present());
  EXPECT_EQ(next(), "NOOP");
  EXPECT_EQ(next(), "QUIT");
  EXPECT_EQ(next(), "<end>");
  channel->send("221 Bye.\r\n");
  EXPECT_EQ(read(client, 10), "221 Bye.\r\n");
  EXPECT_EQ(lost, 0);
  reset(client);
  EXPECT_TRUE(until([&] { return lost == 1; }));
  EXPECT_FALSE(channel->half_closed());
}

TEST_F(ControlChannelTest, LossEndsEveryWait) {
  int written = 0;
  bool closed = false;
  channel->send(std::string(64 << 20, 'x'), [&] { ++written; });
  channel->send("more", [&] { ++written; });
  write(client, "NOOP\r\n");
  EXPECT_EQ(next(), "NOOP");
  auto line = begin(channel->next_line());
  idle(20ms);
  EXPECT_TRUE(channel->present());
  reset(client);
  EXPECT_TRUE(until([&] { return is_there(line); }));
  EXPECT_EQ(line.get(), std::nullopt);
  EXPECT_EQ(lost, 1);
  EXPECT_EQ(written, 2);
  EXPECT_FALSE(channel->present());
  channel->finish([&] { closed = true; });
  EXPECT_TRUE(closed);
}

/// However much the client has sent: what it is to read arrives, and no reset takes it away.
TEST_F(ControlChannelTest, FinishSendsWhatIsWaiting) {
  bool closed = false;
  auto line = begin(channel->next_line());
  idle(5ms);
  const std::string reply(1 << 20, 'x');
  channel->send(reply);
  channel->send("421 The end.\r\n");
  channel->finish([&] { closed = true; });
  client.write_some(boost::asio::buffer("NOOP\r\n", 6));
  EXPECT_EQ(read(client), reply + "421 The end.\r\n");
  EXPECT_TRUE(closed);
  EXPECT_TRUE(until([&] { return is_there(line); }));
  EXPECT_EQ(line.get(), std::nullopt);
  EXPECT_EQ(lost, 0);
}

TEST_F(ControlChannelTest, WhoReadsNoRepliesGetsNoMore) {
  channel->send(std::string(64 << 20, 'x'));  // more than the kernel takes
  idle(5ms);
  channel->send(std::string(control_channel::WAITING_OUTPUT_MAX, 'y'));
  auto line = begin(channel->next_line());
  write(client, "NOOP\r\n");
  EXPECT_TRUE(until([&] { return channel->lines().size() == 1; }));
  idle(20ms);
  EXPECT_FALSE(is_there(line));
  EXPECT_EQ(channel->take_line(), std::nullopt);
  read(client, (64 << 20) + control_channel::WAITING_OUTPUT_MAX);
  EXPECT_TRUE(until([&] { return is_there(line); }));
  EXPECT_EQ(line.get()->text, "NOOP");
}

/// While something runs nobody takes lines; what must be noticed then is noticed, in bounded memory.
TEST_F(ControlChannelTest, AbortIsSeenBehindAnyNumberOfLines) {
  struct {
    std::size_t lines;
    std::string line;
    bool all_kept;
  } const rows[] = {
      {0, "", true},
      {10'000, "PWD\r\n", true},
      {100, "CWD " + std::string(8000, 'x') + "\r\n", true},
      {500'000, "\r\n", false},
      {1'000, "CWD " + std::string(8000, 'x') + "\r\n", false},
  };
  const auto last_aborts = [this] { return !channel->lines().empty() && channel->lines().back().abort; };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << row.lines << " lines of " << row.line.size());
    open();
    std::string bytes;
    for (std::size_t i = 0; i < row.lines; ++i) bytes += row.line;
    write(client, bytes);
    for (int abort = 0; abort < 2; ++abort) {
      write(client,
            "\xff\xf4\xff\xf2"
            "abor\r\n");
      ASSERT_TRUE(until([&] { return last_aborts() && !channel->lines().back().aborted; }));
      channel->lines().back().aborted = true;
    }
    const auto& lines = channel->lines();
    EXPECT_EQ(lines.size() == row.lines + 2, row.all_kept);
    std::size_t kept = 0;
    bool overrun = false;
    for (const auto& line : lines) {
      kept += line.text.size() + sizeof(line);
      overrun |= line.overrun;
    }
    EXPECT_EQ(overrun, !row.all_kept);
    EXPECT_LT(kept, control_channel::QUEUED_BYTES_MAX + 200'000);
  }
}

}  // namespace
}  // namespace tarvex::server::test
