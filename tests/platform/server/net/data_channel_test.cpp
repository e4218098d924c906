#include "net/data_channel.h"

#include "net/data_socket.h"
#include "net_fixture.h"

namespace tarvex::server::test {
namespace {

using namespace std::chrono_literals;
namespace ip = boost::asio::ip;

class DataChannelTest : public NetTest {
 protected:
  const ip::address here = ip::address_v4::loopback();
  data_channel channel{loop};

  tcp::socket client_from(const char* address, std::uint16_t port) {
    tcp::socket client(loop.context(), {ip::make_address(address), 0});
    client.connect({here, port});
    return client;
  }
};

TEST_F(DataChannelTest, OnlyThePeerIsLetIn) {
  const std::uint16_t port = channel.listen(here, here, std::nullopt);
  ASSERT_NE(port, 0);
  EXPECT_TRUE(channel.ready());
  tcp::socket stranger = client_from("127.0.0.2", port), client = client_from("127.0.0.1", port);
  const data_connection made = await(channel.open(20s));
  ASSERT_NE(made.socket, nullptr) << made.error;
  EXPECT_EQ(made.socket->transport().remote_endpoint(), client.local_endpoint());
  EXPECT_EQ(read(stranger), "");
  EXPECT_FALSE(channel.ready()) << "one use";
  EXPECT_EQ(await(channel.open(20s)).error, "The data connection was used already.");
}

TEST_F(DataChannelTest, ConnectsToThePeer) {
  tcp::acceptor acceptor(loop.context(), {here, 0});
  channel.target(here, here, acceptor.local_endpoint().port());
  const data_connection made = await(channel.open(20s));
  ASSERT_NE(made.socket, nullptr) << made.error;
  EXPECT_EQ(acceptor.accept().local_endpoint(), made.socket->transport().remote_endpoint());
  acceptor.close();
  channel.target(here, here, made.socket->transport().remote_endpoint().port());
  EXPECT_EQ(await(channel.open(20s)).error, "The data connection could not be made: Connection refused.");
}

TEST_F(DataChannelTest, WaitsEndWithAReason) {
  const std::pair<const char*, std::function<void()>> rows[] = {
      {"The data connection was given up.", [&] { channel.close(); }},
      {"The data connection was given up.", [&] { EXPECT_NE(channel.listen(here, here, std::nullopt), 0); }},
      {"The data connection was given up.", [&] { channel.target(here, here, 1); }},
      {"No data connection came.", [&] { idle(30ms); }},
  };
  EXPECT_EQ(await(channel.open(20s)).error, "No data connection was prepared.");
  for (const auto& [error, stroke] : rows) {
    EXPECT_NE(channel.listen(here, here, std::nullopt), 0);
    auto made = begin(channel.open(std::string(error).starts_with("No") ? 10ms : 20s));
    idle(5ms);
    stroke();
    ASSERT_TRUE(until([&] { return is_there(made); }));
    const data_connection outcome = made.get();
    EXPECT_EQ(outcome.socket, nullptr);
    EXPECT_EQ(outcome.error, error);
  }
}

TEST_F(DataChannelTest, PortsAreTakenFromTheRange) {
  const std::uint16_t port = channel.listen(here, here, std::nullopt);
  data_channel other(loop);
  EXPECT_EQ(other.listen(here, here, std::pair(port, port)), 0) << "taken";
  EXPECT_FALSE(other.ready());
  channel.close();
  EXPECT_EQ(other.listen(here, here, std::pair(port, port)), port);
}

}  // namespace
}  // namespace tarvex::server::test
