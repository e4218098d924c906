#include "session_fixture.h"

namespace tarvex::server::test {
namespace {

std::string port_text(const std::string& host, std::uint16_t port) {
  return host + "," + std::to_string(port / 256) + "," + std::to_string(port % 256);
}

TEST_F(SessionTest, ConnectsToTheClient) {
  for (const bool ipv6 : {false, true}) {
    connect(ipv6);
    expect({{"USER alice", "331 "}, {"PASS secret", "230 "}, {"PASV", ipv6 ? "425 " : "227 "}});
    const loopback_socket listener = loopback_socket::listener(ipv6);
    const std::string port = std::to_string(listener.port());
    std::vector<std::string> lines = {ipv6 ? "EPRT |2|0:0::1|" + port + "|" : "EPRT |1|127.0.0.1|" + port + "|"};
    if (!ipv6) lines.push_back("PORT " + port_text("127,0,0,1", listener.port()));
    for (const std::string& line : lines) {
      expect({{line, "200 "}, {"RETR file", "150 "}});
      EXPECT_EQ(listener.accept().read_all(), "hello");
      expect_reply("226 ");
    }
    close_session();
  }
  log_in();
  const std::uint16_t closed_port = loopback_socket::listener().port();
  expect({{"PORT " + port_text("127,0,0,1", closed_port), "200 "}, {"RETR file", "150 "}});
  expect_reply("425 ");
  expect("RETR file", "425 ");
}

TEST_F(SessionTest, GivesDataToNobodyElse) {
  log_in();
  config.passive_address = boost::asio::ip::make_address_v4("192.0.2.7");
  expect("PASV", "227 Entering Passive Mode (192,0,2,7,");
  const loopback_socket left_behind = passive();
  const std::string port_reply = command("EPSV");
  const auto port = static_cast<std::uint16_t>(std::stoi(port_reply.substr(port_reply.find("|||") + 3)));
  EXPECT_EQ(left_behind.read(), "") << "a new EPSV closes the old listener";
  const loopback_socket thief = loopback_socket::connect(port, "127.0.0.2");
  const loopback_socket client = loopback_socket::connect(port);
  expect("RETR file", "150 ");
  EXPECT_EQ(thief.read(), "");
  EXPECT_EQ(client.read_all(), "hello");
  expect_reply("226 ");
  EXPECT_LT(loopback_socket::connect(port).descriptor(), 0) << "the listener is gone after the transfer";
}

TEST_F(SessionTest, KeepsToItsPorts) {
  const loopback_socket taken = loopback_socket::listener();
  config.data_ports = {taken.port(), taken.port()};
  log_in();
  expect("EPSV", "425 ");
}

}  // namespace
}  // namespace tarvex::server::test
