#include "net/data_receiver.h"
#include "net/data_sender.h"
#include "net/data_socket.h"
#include "net_fixture.h"

#include <atomic>
#include <deque>
#include <span>
#include <thread>
#include <vector>

namespace tarvex::server::test {
namespace {

using namespace std::chrono_literals;

/// A data connection, and what came of the pieces and reads.
class DataTransferTest : public NetTest {
 protected:
  void SetUp() override {
    auto [server, other] = connected();
    client = std::move(other);
    connection = std::make_unique<data_socket>(data_socket{std::move(server)});
  }

  data_piece piece(std::string owned, const std::string& lent = {}) {
    return {reinterpret_cast<const unsigned char*>(lent.data()), lent.size(), std::move(owned),
            [this](bool sent) { told += sent ? "s" : "f"; }};
  }

  /// Begins a read; what it brings is noted.
  void ask(data_receiver& receiver, std::size_t length) {
    buffers.emplace_back(length, '\0');
    const auto into = buffers.size() - 1;
    auto* bytes = reinterpret_cast<unsigned char*>(buffers.back().data());
    EXPECT_TRUE(receiver.read({bytes, length, [this, into](const read_outcome& outcome) {
                                 EXPECT_EQ(outcome.offset, got.size());
                                 got += buffers[into].substr(0, outcome.bytes);
                                 if (outcome.failed) told += "failed ";
                                 if (outcome.eof) told += "end";
                               }}));
  }

  data_receiver::rules rules() {
    return {.window_bytes = 1000,
            .stall_limit = 20s,
            .expected = {},
            .end_grace = 0ms,
            .peer_present = [this] { return present; },
            .broken = [this](int code, const std::string&) { told += std::to_string(code) + " "; }};
  }

  tcp::socket client{loop.context()};
  std::unique_ptr<data_socket> connection;
  std::deque<std::string> buffers;
  std::string got, told;
  bool present = true;
};

TEST_F(DataTransferTest, FinishWaitsUntilAllIsSent) {
  data_sender sender(loop, 20s, [this](const std::string&) { told += "broken"; });
  const std::string large(32 << 20, 'x');
  EXPECT_TRUE(sender.push(piece("")));
  EXPECT_TRUE(sender.push(piece("ab")));
  EXPECT_TRUE(sender.push(piece("", large)));
  EXPECT_TRUE(sender.push(piece("")));
  auto finished = begin(sender.finish());
  idle(5ms);
  EXPECT_EQ(told, "") << "not before there is a connection";
  sender.attach(std::move(connection));
  idle(50ms);
  EXPECT_FALSE(is_there(finished));
  EXPECT_TRUE(read(client) == "ab" + large);
  ASSERT_TRUE(until([&] { return is_there(finished); }));
  EXPECT_TRUE(finished.get());
  EXPECT_EQ(told, "ssss");
  EXPECT_EQ(sender.sent_bytes(), large.size() + 2);
  EXPECT_FALSE(sender.push(piece("late")));
}

TEST_F(DataTransferTest, AFinishThatCannotBeEnds) {
  const std::string large(32 << 20, 'x');
  const std::pair<const char*, std::string> rows[] = {{"reset", "brokenf"}, {"silence", "brokenf"}, {"abort", "f"}};
  for (const auto& [how, expected] : rows) {
    SCOPED_TRACE(how);
    SetUp();
    told.clear();
    data_sender sender(loop, how == std::string("silence") ? 50ms : 20000ms,
                       [this](const std::string&) { told = "broken" + told; });
    sender.attach(std::move(connection));
    EXPECT_TRUE(sender.push(piece("", large)));
    auto finished = begin(sender.finish());
    idle(20ms);
    if (how == std::string("reset")) reset(client);
    if (how == std::string("abort")) sender.abort();
    ASSERT_TRUE(until([&] { return is_there(finished); }));
    EXPECT_FALSE(finished.get());
    EXPECT_EQ(told, expected);
    EXPECT_FALSE(await(sender.finish()));
  }
}

/// On its own thread a storage writes at once what goes and pushes the rest. Nothing is lost, doubled or out of order,
/// whether the client keeps up or not, and all that went counts.
TEST_F(DataTransferTest, WhatIsWrittenAtOnceKeepsItsPlace) {
  const auto bytes_of = [](const std::string& text) {
    return std::span(reinterpret_cast<const unsigned char*>(text.data()), text.size());
  };
  for (const auto pause : {0ms, 100ms}) {
    SCOPED_TRACE(pause.count());
    SetUp();
    data_sender sender(loop, 20s, [this](const std::string&) { told += "broken"; });
    EXPECT_EQ(sender.write_now(bytes_of("early")), 0U) << "before there is a connection";
    sender.attach(std::move(connection));
    idle(5ms);
    EXPECT_EQ(sender.write_now(bytes_of("ab")), 2U);
    EXPECT_TRUE(sender.push(piece("cd")));
    EXPECT_EQ(sender.write_now(bytes_of("ef")), 0U) << "past what waits";
    std::string expected = "abcd";
    for (std::uint32_t number = 0; number < 4'000'000; ++number) expected.append(reinterpret_cast<char*>(&number), 4);
    std::atomic<std::size_t> pushed = 0, done = 0;
    std::thread storage([&] {
      for (std::span rest = bytes_of(expected).subspan(4); !rest.empty();) {
        const auto block = rest.first(std::min<std::size_t>(rest.size(), 100'000));
        rest = rest.subspan(block.size());
        const std::size_t went = sender.write_now(block);
        if (went == block.size()) continue;
        ++pushed;
        const auto left = block.subspan(went);
        EXPECT_TRUE(sender.push({left.data(), left.size(), {}, [&](bool sent) { done += sent ? 1U : 0U; }}));
        (void)sender.wait_for_room(200'000);
      }
    });
    idle(pause);
    const std::string arrived = read(client, expected.size());
    storage.join();
    EXPECT_TRUE(arrived == expected);
    EXPECT_TRUE(await(sender.finish()));
    EXPECT_EQ(pushed, done);
    EXPECT_TRUE(pause == 0ms || pushed > 0);
    EXPECT_EQ(sender.sent_bytes(), expected.size());
    EXPECT_EQ(sender.write_now(bytes_of("late")), 0U);
  }
}

/// A storage that writes while the transfer is aborted, or the client goes, never touches a connection that is closed.
TEST_F(DataTransferTest, WritesAtOnceEndWithTheConnection) {
  for (const bool resets : {false, true}) {
    SetUp();
    told.clear();
    data_sender sender(loop, 20s, [this](const std::string&) { told += "broken"; });
    sender.attach(std::move(connection));
    idle(5ms);
    std::atomic<bool> written = false;
    std::thread storage([&] {
      const std::vector<unsigned char> block(10'000);
      while (true) {
        const bool went = sender.write_now(block) > 0;
        written = written || went;
        if (!went && (!sender.push({block.data(), 1, {}, {}}) || !sender.wait_for_room(0))) break;
        if (!went) std::this_thread::sleep_for(1ms);  // for the pump to end
      }
      EXPECT_EQ(sender.write_now(block), 0U);
    });
    EXPECT_TRUE(until([&] {
      char dropped[65536];
      boost::system::error_code error;
      (void)client.read_some(boost::asio::buffer(dropped), error);
      return written.load();
    }));
    if (resets) reset(client);
    EXPECT_TRUE(!resets || until([&] { return !told.empty(); }));
    sender.abort();
    storage.join();
    EXPECT_EQ(told, resets ? "broken" : "");
  }
}

/// Bytes are passed on as they come, but the last of them only to a client that is there at the end.
TEST_F(DataTransferTest, TheLastBytesWaitForTheEndToBeBelieved) {
  struct {
    std::size_t hold;
    bool stays;
    std::string early, all, told;
  } const rows[] = {
      {0, true, "0123456789", "0123456789", "end"}, {0, false, "0123456789", "0123456789", "426 failed end"},
      {4, true, "012345", "0123456789", "end"},     {4, false, "012345", "012345", "426 failed end"},
      {10, true, "", "0123456789", "end"},          {11, false, "", "", "426 failed end"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << row.hold << row.stays);
    SetUp();
    got = told = {};
    auto rule = rules();
    rule.hold_last_bytes = row.hold;
    rule.end_grace = 300ms;
    present = true;
    data_receiver receiver(loop, rule);
    receiver.attach(std::move(connection));
    write(client, "0123");
    for (int i = 0; i < 3; ++i) ask(receiver, 6);
    idle(100ms);
    write(client, "456789");
    client.close();
    idle(100ms);
    for (int i = 0; i < 2; ++i) ask(receiver, 6);
    EXPECT_TRUE(until([&] { return got.size() >= row.early.size(); }));
    EXPECT_EQ(got, row.early);
    EXPECT_EQ(told, "");
    present = row.stays;
    EXPECT_TRUE(until([&] { return !told.empty(); }));
    receiver.abort();
    EXPECT_EQ(got, row.all);
    EXPECT_TRUE(told.starts_with(row.told)) << told;
  }
}

/// However reads and packets are cut, the bytes are the same.
TEST_F(DataTransferTest, HeldBytesKeepTheirOrder) {
  std::string sent;
  for (int i = 0; i < 200'000; ++i) sent += static_cast<char>(i ^ (i >> 8));
  for (const std::size_t hold : {std::size_t{0}, std::size_t{1}, std::size_t{777}, std::size_t{5000}}) {
    SCOPED_TRACE(hold);
    SetUp();
    got = told = {};
    auto rule = rules();
    rule.hold_last_bytes = hold;
    rule.expected = sent.size();
    data_receiver receiver(loop, rule);
    receiver.attach(std::move(connection));
    std::size_t written = 0;
    for (std::size_t length = 1; told.empty(); length = length * 3 % 4001) {
      const std::size_t part = std::min<std::size_t>(length * 2, sent.size() - written);
      ask(receiver, length);
      write(client, std::string_view(sent).substr(written, part));
      written += part;
      if (written == sent.size() && client.is_open()) client.close();
      loop.context().poll();
    }
    receiver.abort();
    EXPECT_TRUE(got == sent);
    EXPECT_TRUE(told.starts_with("end")) << told;
  }
}

}  // namespace
}  // namespace tarvex::server::test
