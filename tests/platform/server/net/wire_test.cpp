#include "net/wire.h"

#include "net/control_channel.h"
#include "net/data_channel.h"
#include "net/data_sender.h"
#include "net/data_socket.h"
#include "net/tls_session.h"
#include "net_fixture.h"
#include "support/temporary_folder.h"
#include "tls_fixture.h"

#include <boost/asio/ssl/error.hpp>

namespace tarvex::server::test {
namespace {

using namespace std::chrono_literals;
using boost::system::error_code;

struct read_result {
  std::string bytes;
  error_code end;
};

boost::asio::awaitable<read_result> read_to_end(data_socket from, std::size_t piece) {
  read_result all;
  std::string buffer(piece, '\0');
  while (!all.end) {
    const auto [error, bytes] = co_await from.read_some(boost::asio::buffer(buffer));
    all.bytes.append(buffer, 0, bytes);
    all.end = error;
  }
  co_return all;
}

/// Connections under TLS between a server of the test's own certificate and a client.
class WireTest : public NetTest {
 protected:
  static void SetUpTestSuite() {
    folder = std::make_unique<temporary_folder>();
    tls_files_make(folder->path());
  }
  static void TearDownTestSuite() { folder.reset(); }

  void SetUp() override {
    configuration config;
    config.tls_certificate = folder->path("certificate.pem");
    config.tls_key = folder->path("key.pem");
    auto answer = tls_identity_load(config);
    ASSERT_EQ(answer.error, "");
    session = std::make_unique<tls_session>(answer.identity);
  }

  /// A new connection, before its handshake.
  data_socket connect() {
    auto [server, other] = connected();
    client = std::move(other);
    return data_socket(std::move(server));
  }

  tls_client client_of(int version) {
    const auto deadline = std::chrono::steady_clock::now() + PATIENCE;
    return {client.native_handle(), version, [this, deadline] {
              loop.context().run_one_for(1ms);
              return std::chrono::steady_clock::now() < deadline;
            }};
  }

  static inline std::unique_ptr<temporary_folder> folder;
  std::unique_ptr<tls_session> session;
  tcp::socket client{loop.context()};
};

constexpr int VERSIONS[] = {TLS1_2_VERSION, TLS1_3_VERSION};

std::string content_of(std::size_t bytes) {
  std::string text(bytes, '\0');
  for (std::size_t i = 0; i < bytes; ++i) text[i] = static_cast<char>(i ^ (i >> 8) ^ (i >> 16));
  return text;
}

/// Sizes around those of records and of what is sent in one go; pieces that share a record, and that need several.
TEST_F(WireTest, WhatIsSentArrivesAndEndsInOrder) {
  const std::vector<std::size_t> rows[] = {{},       {0, 1, 0},         {16383, 1, 1},  {16384},
                                           {16385},  {100, 16384, 100}, {300000, 5, 7}, {262144, 262144, 1},
                                           {5000000}};
  const std::pair<int, bool> ways[] = {{TLS1_2_VERSION, false}, {TLS1_3_VERSION, false}, {TLS1_3_VERSION, true}};
  for (const auto& [version, at_once] : ways) {
    for (const auto& pieces : rows) {
      SCOPED_TRACE(testing::Message() << version << at_once << " " << testing::PrintToString(pieces));
      data_socket server = connect();
      auto secured = begin(server.secure(session->data_engine()));
      tls_client peer = client_of(version);
      ASSERT_TRUE(peer.handshake());
      ASSERT_TRUE(until([&] { return is_there(secured); }));
      ASSERT_EQ(secured.get(), error_code());
      data_sender sender(loop, 20s, [](const std::string& why) { ADD_FAILURE() << why; });
      std::string all;
      if (at_once) sender.attach(std::make_unique<data_socket>(std::move(server)));
      if (at_once) idle(1ms);
      for (const std::size_t length : pieces) {
        std::string piece = content_of(length);
        all += piece;
        piece.erase(0, sender.write_now({reinterpret_cast<const unsigned char*>(piece.data()), piece.size()}));
        EXPECT_TRUE(sender.push({.bytes = nullptr, .length = 0, .owned = piece, .done = {}}));
      }
      if (!at_once) sender.attach(std::make_unique<data_socket>(std::move(server)));
      auto finished = begin(sender.finish());
      EXPECT_TRUE(peer.read_all() == all);
      EXPECT_TRUE(peer.ended_in_order());
      ASSERT_TRUE(until([&] { return is_there(finished); }));
      EXPECT_TRUE(finished.get());
      EXPECT_EQ(sender.sent_bytes(), all.size());
    }
  }
}

TEST_F(WireTest, WhatIsReadIsAllAndEndsAreToldApart) {
  const std::string all = content_of(1'000'003);
  for (const int version : VERSIONS) {
    for (const std::size_t piece : {1U, 16384U, 100'000U}) {
      for (const bool orderly : {true, false}) {
        SCOPED_TRACE(testing::Message() << version << " " << piece << " " << orderly);
        const std::string_view sent = std::string_view(all).substr(0, piece == 1 ? 20'000 : all.size());
        data_socket server = connect();
        auto secured = begin(server.secure(session->data_engine()));
        tls_client peer = client_of(version);
        ASSERT_TRUE(peer.handshake());
        ASSERT_TRUE(until([&] { return is_there(secured); }));
        auto read = begin(read_to_end(std::move(server), piece));
        ASSERT_TRUE(peer.write(sent));
        if (orderly) peer.close_notify();
        client.shutdown(tcp::socket::shutdown_send);
        ASSERT_TRUE(until([&] { return is_there(read); }));
        const read_result got = read.get();
        EXPECT_TRUE(got.bytes == sent);
        EXPECT_EQ(got.end, orderly ? error_code(boost::asio::error::eof)
                                   : error_code(boost::asio::ssl::error::stream_truncated));
        EXPECT_EQ(peer.read_all(), "");
        EXPECT_TRUE(peer.ended_in_order()) << "a client may wait for the answer to its end";
      }
    }
  }
}

TEST_F(WireTest, HandshakesThatDoNotComeToAnEndAreGivenUp) {
  for (const char* said : {"", "\x16\x03\x01\x02"}) {
    data_channel data(loop);
    data.protection().tls = session.get();
    const auto here = boost::asio::ip::make_address("127.0.0.1");
    client = tcp::socket(loop.context());
    client.connect({here, data.listen(here, here, {})});
    write(client, said);
    const data_connection made = await(data.open(100ms));
    EXPECT_EQ(made.socket, nullptr);
    EXPECT_EQ(made.code, 425);
    EXPECT_NE(made.error.find("handshake"), std::string::npos) << made.error;

    auto [server, other] = connected();
    control_channel control(loop, server.release());
    EXPECT_TRUE(control.start({}));
    write(other, "AUTH TLS\r\nNOOP\r\n");
    EXPECT_TRUE(until([&] { return control.lines().size() == 2; }));
    auto secured = begin(control.secure(session->control_engine(), "234 Go.\r\n", 100ms));
    EXPECT_EQ(read(other, 9), "234 Go.\r\n");
    write(other, said);
    ASSERT_TRUE(until([&] { return is_there(secured); }));
    EXPECT_EQ(secured.get(), error_code(boost::asio::error::timed_out));
    EXPECT_FALSE(control.secured());
    EXPECT_TRUE(control.lines().empty());
  }
}

}  // namespace
}  // namespace tarvex::server::test
