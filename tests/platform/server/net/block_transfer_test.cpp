#include "net/block_header.h"
#include "net/block_receiver.h"
#include "net/block_sender.h"
#include "net/data_socket.h"
#include "net_fixture.h"

#include <deque>
#include <map>
#include <random>

namespace tarvex::server::test {
namespace {

using namespace std::chrono_literals;

std::string pattern(std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 7 + i / 509);
  return bytes;
}

std::string header(unsigned bits, std::uint64_t count, std::uint64_t offset) {
  const auto bytes = block_header_encode({static_cast<std::uint8_t>(bits), count, offset});
  return {bytes.begin(), bytes.end()};
}

std::string block(std::uint64_t offset, const std::string& payload, unsigned bits = 0) {
  return header(bits, payload.size(), offset) + payload;
}

/// Several connections of a client, which do not block.
class BlockTransferTest : public NetTest {
 protected:
  std::unique_ptr<data_socket> connection() {
    auto [server, other] = connected();
    clients.push_back(std::move(other));
    return std::make_unique<data_socket>(std::move(server));
  }

  block_receiver::rules rules() {
    return {.window_bytes = 1 << 20,
            .connections_max = 4,
            .stall_limit = 20s,
            .gap_limit = 20s,
            .peer_present = [this] { return present; },
            .broken = [this](int code, const std::string& why) { told += std::to_string(code) + " " + why; }};
  }

  void ask(block_receiver& receiver, std::size_t length) {
    buffers.emplace_back(length, '\0');
    const auto into = buffers.size() - 1;
    auto* bytes = reinterpret_cast<unsigned char*>(buffers.back().data());
    (void)receiver.read({bytes, length, [this, into](const read_outcome& outcome) {
                           EXPECT_EQ(outcome.offset, got.size());
                           got += buffers[into].substr(0, outcome.bytes);
                           buffers[into].clear();
                           over |= outcome.eof;
                           failed |= outcome.failed;
                           asked = false;
                         }});
    asked = true;
  }

  /// Reads until the data are over.
  void take_all(block_receiver& receiver) {
    EXPECT_TRUE(until([&] {
      if (!asked && !over) ask(receiver, 1 + buffers.size() * 7919 % 300'000);
      return over;
    }));
  }

  std::deque<tcp::socket> clients;
  std::deque<std::string> buffers;
  std::string got, told;
  bool asked = false, over = false, failed = false, present = true;
};

/// The blocks of a client's connection, in order; nothing when they do not end as they should.
std::optional<std::map<std::uint64_t, std::string>> blocks_of(std::string_view bytes, unsigned& ends, unsigned& eof) {
  std::map<std::uint64_t, std::string> blocks;
  while (bytes.size() >= block_header::BYTES) {
    const auto* const raw = reinterpret_cast<const unsigned char*>(bytes.data());
    const block_header one = block_header_decode(std::span<const unsigned char, block_header::BYTES>(raw, 17));
    bytes.remove_prefix(block_header::BYTES);
    if (one.has(block_header::END_OF_FILE)) eof += static_cast<unsigned>(one.offset);
    if (one.has(block_header::END_OF_DATA)) return ++ends, bytes.empty() ? std::optional(blocks) : std::nullopt;
    if (bytes.size() < one.count) return std::nullopt;
    blocks[one.offset] = std::string(bytes.substr(0, one.count));
    bytes.remove_prefix(one.count);
  }
  return std::nullopt;
}

TEST_F(BlockTransferTest, ADownloadComesWholeOnAnyNumberOfConnections) {
  const std::string file = pattern(3'000'017);
  for (const unsigned lanes : {1U, 2U, 5U, 16U}) {
    SCOPED_TRACE(lanes);
    clients.clear();
    std::string done;
    block_sender sender(loop, {.block_bytes = 40'000, .stall_limit = 20s, .failed = {}});
    sender.expect(lanes + 1);
    for (std::size_t at = 0; at < file.size(); at += 500'000) {
      EXPECT_TRUE(sender.push({reinterpret_cast<const unsigned char*>(file.data()) + at,
                               std::min(file.size() - at, 500'000UL),
                               {},
                               [&done](bool sent) { done += sent ? "+" : "-"; },
                               at}));
    }
    auto finished = begin(sender.finish());
    for (unsigned i = 0; i < lanes; ++i) sender.attach(connection());
    idle(5ms);
    EXPECT_FALSE(is_there(finished)) << "one connection may still come";
    sender.missing();
    std::map<std::uint64_t, std::string> blocks;
    unsigned ends = 0, eof = 0;
    for (auto& client : clients) {
      auto mine = blocks_of(read(client), ends, eof);
      ASSERT_TRUE(mine);
      blocks.merge(*mine);
    }
    std::string whole;
    for (const auto& [offset, bytes] : blocks) whole += offset == whole.size() ? bytes : "gap";
    EXPECT_TRUE(whole == file);
    EXPECT_EQ(ends, lanes);
    EXPECT_EQ(eof, lanes) << "announced once";
    EXPECT_TRUE(until([&] { return is_there(finished); }) && finished.get());
    EXPECT_EQ(done, "+++++++");
    EXPECT_EQ(sender.sent_bytes(), file.size());
  }
}

/// A connection that nobody reads keeps what it has; all else goes by the others.
TEST_F(BlockTransferTest, AConnectionThatTakesNothingHoldsUpNoOther) {
  const std::string part = pattern(1 << 20);
  constexpr int PARTS = 64;
  int done = 0;
  std::string why;
  block_sender sender(loop, {.block_bytes = 100'000, .stall_limit = 20s, .failed = [&](auto text) { why = text; }});
  sender.expect(3);
  for (int i = 0; i < 3; ++i) sender.attach(connection());
  std::size_t taken = 0;
  for (int i = 0; i < PARTS; ++i) {
    const auto* const bytes = reinterpret_cast<const unsigned char*>(part.data());
    EXPECT_TRUE(sender.push({bytes, part.size(), {}, [&](bool) { ++done; }, 0}));
  }
  std::vector<char> dropped(1 << 20);
  EXPECT_TRUE(until([&] {
    boost::system::error_code error;
    for (std::size_t i = 0; i < 2; ++i) taken += clients[i].read_some(boost::asio::buffer(dropped), error);
    return done == PARTS;
  }));
  EXPECT_GT(taken, 40U << 20);
  auto finished = begin(sender.finish());
  EXPECT_TRUE(until([&] {
    boost::system::error_code error;
    for (auto& client : clients) (void)client.read_some(boost::asio::buffer(dropped), error);
    return is_there(finished);
  }));
  EXPECT_TRUE(finished.get()) << why;
}

TEST_F(BlockTransferTest, ADownloadThatCannotEndFails) {
  const std::string large(64 << 20, 'x');
  const std::pair<std::string, std::string> rows[] = {{"reset", "The client closed a data connection."},
                                                      {"silence", "The client took no data for too long."},
                                                      {"abort", ""}};
  for (const auto& [how, expected] : rows) {
    SCOPED_TRACE(how);
    clients.clear();
    std::string why, done;
    block_sender sender(loop, {.block_bytes = 1 << 20,
                               .stall_limit = how == "silence" ? 100ms : 20'000ms,
                               .failed = [&](const std::string& text) { why = text; }});
    sender.expect(2);
    for (int i = 0; i < 2; ++i) sender.attach(connection());
    const auto* const bytes = reinterpret_cast<const unsigned char*>(large.data());
    EXPECT_TRUE(sender.push({bytes, large.size(), {}, [&](bool sent) { done += sent ? "+" : "-"; }, 0}));
    auto finished = begin(sender.finish());
    idle(20ms);
    if (how == "reset") reset(clients[1]);
    if (how == "abort") sender.abort();
    ASSERT_TRUE(until([&] { return is_there(finished); }));
    EXPECT_FALSE(finished.get());
    EXPECT_EQ(why, expected);
    EXPECT_EQ(done, "-");
    EXPECT_FALSE(sender.push({bytes, 1, {}, {}, 0}));
  }
}

TEST_F(BlockTransferTest, AnUploadComesInOrderHoweverItIsCut) {
  const std::string file = pattern(2'500'003);
  for (unsigned seed = 1; seed <= 12; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    clients.clear();
    got.clear();
    buffers.clear();
    over = failed = asked = false;
    const std::size_t lanes = 1 + random() % 4;
    const std::size_t largest = seed % 3 == 0 ? 900 : 400'000;
    std::vector<std::string> sent(lanes);
    for (std::size_t at = 0; at < file.size();) {
      const std::size_t count = std::min<std::size_t>(1 + random() % largest, file.size() - at);
      sent[random() % lanes] += block(at, file.substr(at, count));
      at += count;
    }
    sent[random() % lanes] += header(64, 0, lanes);
    for (std::string& each : sent) each += header(random() % 2 == 0 ? 8 : 12, 0, 0);
    auto rule = rules();
    if (seed % 2 == 0) rule.expected = file.size();
    block_receiver receiver(loop, rule);
    for (std::size_t lane = 0; lane < lanes; ++lane) receiver.attach(connection());
    std::vector<std::size_t> out(lanes);
    EXPECT_TRUE(until([&] {
      for (std::size_t lane = 0; lane < lanes; ++lane) {
        const std::size_t part = std::min<std::size_t>(1 + random() % 60'000, sent[lane].size() - out[lane]);
        boost::system::error_code error;
        out[lane] += clients[lane].write_some(boost::asio::buffer(sent[lane].data() + out[lane], part), error);
      }
      if (!asked && !over) ask(receiver, 1 + random() % 500'000);
      return over;
    }));
    EXPECT_TRUE(got == file) << told;
    EXPECT_FALSE(failed);
    EXPECT_EQ(receiver.received_bytes(), file.size());
  }
  EXPECT_EQ(told, "");
}

TEST_F(BlockTransferTest, ARestartedUploadLeavesOutWhatIsThere) {
  auto rule = rules();
  rule.start = 100;
  rule.shift = 40;
  rule.expected = 30;
  block_receiver receiver(loop, rule);
  receiver.attach(connection());
  write(clients[0], block(0, std::string(50, 'x')) + block(70, "789") + block(50, std::string(10, 'x') + "0123456") +
                        block(67, "789") + block(73, std::string(17, 'y')) + header(76, 0, 1));
  take_all(receiver);
  EXPECT_EQ(got, "0123456789789" + std::string(17, 'y'));
  EXPECT_EQ(told, "");
}

TEST_F(BlockTransferTest, WhatASenderMayNotDoEndsTheTransfer) {
  const std::string far = header(0, 9, 3 << 20) + "123456789";
  const std::string whole = block(0, "0123456789");
  const struct {
    const char* name;
    std::vector<std::string> lanes;  ///< what each sends; a "!" at the end closes, a "#" resets
    const char* told;
  } rows[] = {
      {"count that overflows", {header(0, ~0ULL, 5)}, "451 A block reaches beyond the largest"},
      {"offset and count that overflow", {header(0, 10, (1ULL << 63) - 5)}, "451 A block reaches beyond the largest"},
      {"no connection announced", {whole + header(64, 0, 0)}, "451 The end of the file was announced with no"},
      {"too many announced", {whole + header(64, 0, 5)}, "451 The end of the file was announced for 5"},
      {"announced twice", {header(64, 0, 2) + header(64, 0, 2)}, "451 The end of the file was announced twice"},
      {"fewer announced than there are", {whole, header(72, 0, 1)}, "451 More data connections were opened"},
      {"end with payload", {header(64, 4, 1)}, "451 The block that ends the file has payload"},
      {"header cut short", {whole + "\x01\x02\x03!"}, "426 A data connection ended within a block"},
      {"payload cut short", {header(0, 10, 0) + "012!"}, "426 A data connection ended within a block"},
      {"no end", {whole + "!"}, "426 A data connection ended without"},
      {"nothing at all", {"!"}, "426 A data connection ended without"},
      {"reset", {whole + "#"}, "426 A data connection broke"},
      {"partly repeated", {block(0, "0123456") + block(5, "56789")}, "451 Some bytes of the block at 5 came before"},
      {"more than announced", {block(0, "0123456789x")}, "451 A block reaches to byte 11, beyond the size of 10"},
      {"less than announced", {block(0, "012") + header(76, 0, 1)}, "426 The data ended after 3 of 10"},
      {"a gap at the end", {block(0, "0123") + block(6, "6789") + header(76, 0, 1)}, "426 The data have ended, but"},
      {"data behind the last block", {block(0, "0123456789", 8) + "x"}, "451 Data came behind the last block"},
      {"damaged", {header(32, 1, 0)}, "451 The sender marked a block"},
      {"restart marker", {header(16, 1, 0)}, "451 A block is a restart marker"},
      {"too many connections", {"", "", "", "", ""}, "451 At most 4 data connections"},
      {"one that never ends", {whole + header(72, 0, 2), ""}, "426 The client sent no data for too long"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    clients.clear();
    buffers.clear();
    told.clear();
    got.clear();
    over = failed = asked = false;
    auto rule = rules();
    rule.stall_limit = 300ms;
    rule.expected = 10;
    block_receiver receiver(loop, rule);
    for (std::size_t i = 0; i < row.lanes.size(); ++i) receiver.attach(connection());
    for (std::size_t i = 0; i < row.lanes.size(); ++i) {
      std::string bytes = row.lanes[i];
      const char last = bytes.empty() ? ' ' : bytes.back();
      if (last == '!' || last == '#') bytes.pop_back();
      write(clients[i], bytes);
      idle(5ms);
      if (last == '#') reset(clients[i]);
      if (last == '!') clients[i].close();
    }
    take_all(receiver);
    EXPECT_TRUE(failed);
    EXPECT_EQ(told.substr(0, std::string_view(row.told).size()), row.told);
    receiver.abort();
    for (auto& client : clients)
      if (client.is_open()) (void)read(client);  // each comes to its end
  }
}

/// Bytes that lie beyond the window wait in their connection; when none brings what is missing, the client is told.
TEST_F(BlockTransferTest, AGapThatNeverClosesIsTold) {
  const struct {
    const char* name;
    bool more_may_come, closes;
    const char* told;
  } rows[] = {
      {"another connection brings it", true, true, ""},
      {"none does", true, false, "451 The data at byte 0 did not come, and all data connections wait"},
      {"none can", false, false, "451 The data at byte 0 did not come, and all data connections wait"},
  };
  const std::string part = pattern(1 << 20);
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    clients.clear();
    buffers.clear();
    told.clear();
    got.clear();
    over = failed = asked = false;
    auto rule = rules();
    rule.gap_limit = row.more_may_come && !row.closes ? 100ms : 20'000ms;
    rule.connections_max = row.more_may_come ? 2 : 1;
    block_receiver receiver(loop, rule);
    receiver.attach(connection());
    ask(receiver, 10);
    const std::string ahead = block(part.size(), part + part + part) + header(76, 0, row.closes ? 2 : 1);
    std::size_t out = 0;
    const auto send_more = [&] {
      boost::system::error_code error;
      if (out < ahead.size()) out += clients[0].write_some(boost::asio::buffer(ahead) + out, error);
    };
    for (int i = 0; i < 20; ++i) {
      send_more();
      idle(1ms);
    }
    EXPECT_LE(receiver.received_bytes(), 1U << 20);
    if (row.closes) {
      EXPECT_EQ(told, "");
      receiver.attach(connection());
      write(clients[1], block(0, part) + header(8, 0, 0));
    }
    EXPECT_TRUE(until([&] {
      send_more();
      if (!asked && !over) ask(receiver, 400'000);
      return over;
    }));
    EXPECT_EQ(told.substr(0, std::string_view(row.told).size()), row.told);
    EXPECT_TRUE(!row.closes || got == part + part + part + part);
  }
}

/// One that has been told to read on, and has not yet had its turn, brings what is missing.
TEST_F(BlockTransferTest, AConnectionThatIsAboutToReadOnLeavesNoGap) {
  const std::string first = pattern(600'000), rest = pattern(100'000);
  auto rule = rules();
  rule.window_bytes = 1 << 18;
  rule.connections_max = 2;
  block_receiver receiver(loop, rule);
  receiver.attach(connection());
  write(clients[0], block(0, first) + header(72, 0, 2));
  idle(5ms);
  EXPECT_TRUE(receiver.full());
  receiver.attach(connection());
  clients[1].write_some(boost::asio::buffer(block(first.size(), rest) + header(8, 0, 0)));
  for (int i = 0; i < 3; ++i) ask(receiver, 1 << 18);
  take_all(receiver);
  EXPECT_TRUE(got == first + rest);
  EXPECT_EQ(told, "");
}

TEST_F(BlockTransferTest, AClientThatIsGoneHasNotFinished) {
  present = false;
  block_receiver receiver(loop, rules());
  receiver.attach(connection());
  write(clients[0], block(0, "all") + header(76, 0, 1));
  take_all(receiver);
  EXPECT_TRUE(failed);
  EXPECT_EQ(told, "426 The client is gone.");
}

}  // namespace
}  // namespace tarvex::server::test
