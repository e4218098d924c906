#include "core_session_fixture.h"

namespace tarvex::server::test {
namespace {

std::string port_text(const std::string& host, std::uint16_t port) {
  return host + "," + std::to_string(port / 256) + "," + std::to_string(port % 256);
}

TEST_F(SessionTest, RefusesBadDataAddresses) {
  log_in();
  const std::pair<std::string, std::string> rows[] = {
      {"RETR file", "425 "},
      {"LIST", "425 "},
      {"PORT 127,0,0,1,4", "501 "},
      {"PORT 127,0,0,1,4,1,1", "501 "},
      {"PORT 127,0,0,256,4,1", "501 "},
      {"PORT 127,0,0,-1,4,1", "501 "},
      {"PORT ,,,,,", "501 "},
      {"PORT 127,0,0,2,200,1", "504 "},
      {"PORT 127,0,0,1,3,255", "504 "},
      {"EPRT |1|10.0.0.1|40000|", "504 "},
      {"EPRT |1|127.0.0.1|80|", "504 "},
      {"EPRT |1|127.0.0.1|65536|", "501 "},
      {"EPRT |1|127.0.0.1|40000", "501 "},
      {"EPRT |2|::1|40000|", "522 "},
      {"EPSV 2", "522 Network protocol not supported, use (1).\r\n"},
      {"EPSV 3", "501 "},
      {"RETR file", "425 "},
      {"EPSV ALL", "200 "},
      {"PASV", "503 "},
      {"PORT 127,0,0,1,200,1", "503 "},
  };
  for (const auto& [line, expected] : rows) EXPECT_EQ(command(line).substr(0, expected.size()), expected) << line;
  const loopback_socket data = passive();
  EXPECT_EQ(command("RETR file").substr(0, 4), "150 ");
  EXPECT_EQ(data.read_all(), "hello");
}

TEST_F(SessionTest, ConnectsToTheClient) {
  log_in();
  for (const bool extended : {false, true}) {
    const loopback_socket listener = loopback_socket::listener();
    const std::string port = std::to_string(listener.port());
    const std::string line =
        extended ? "EPRT |1|127.0.0.1|" + port + "|" : "PORT " + port_text("127,0,0,1", listener.port());
    EXPECT_EQ(command(line).substr(0, 4), "200 ");
    EXPECT_EQ(command("RETR file").substr(0, 4), "150 ");
    EXPECT_EQ(listener.accept().read_all(), "hello");
    EXPECT_EQ(reply().substr(0, 4), "226 ");
  }
  std::uint16_t closed_port = loopback_socket::listener().port();
  EXPECT_EQ(command("PORT " + port_text("127,0,0,1", closed_port)).substr(0, 4), "200 ");
  EXPECT_EQ(command("RETR file").substr(0, 4), "150 ");
  EXPECT_EQ(reply().substr(0, 4), "425 ");
  EXPECT_EQ(command("RETR file").substr(0, 4), "425 ");
}

TEST_F(SessionTest, GivesDataToNobodyElse) {
  log_in();
  config.passive_address = boost::asio::ip::make_address_v4("192.0.2.7");
  const std::string answer = command("PASV");
  EXPECT_EQ(answer.substr(0, 37), "227 Entering Passive Mode (192,0,2,7,");
  const loopback_socket left_behind = passive();
  const std::string port_reply = command("EPSV");
  const auto port = static_cast<std::uint16_t>(std::stoi(port_reply.substr(port_reply.find("|||") + 3)));
  EXPECT_EQ(left_behind.read(), "") << "a new EPSV closes the old listener";
  const loopback_socket thief = loopback_socket::connect(port, "127.0.0.2");
  const loopback_socket client = loopback_socket::connect(port);
  EXPECT_EQ(command("RETR file").substr(0, 4), "150 ");
  EXPECT_EQ(thief.read(), "");
  EXPECT_EQ(client.read_all(), "hello");
  EXPECT_EQ(reply().substr(0, 4), "226 ");
  EXPECT_LT(loopback_socket::connect(port).descriptor(), 0) << "the listener is gone after the transfer";
}

TEST_F(SessionTest, KeepsToItsPorts) {
  const loopback_socket taken = loopback_socket::listener();
  config.data_ports = {taken.port(), taken.port()};
  log_in();
  EXPECT_EQ(command("EPSV").substr(0, 4), "425 ");
}

TEST_F(SessionTest, SpeaksIpv6) {
  connect(true);
  command("USER alice");
  EXPECT_EQ(command("PASS secret").substr(0, 4), "230 ");
  EXPECT_EQ(command("PASV").substr(0, 4), "425 ");
  const loopback_socket listener = loopback_socket::listener(true);
  EXPECT_EQ(command("EPRT |2|0:0::1|" + std::to_string(listener.port()) + "|").substr(0, 4), "200 ");
  EXPECT_EQ(command("RETR file").substr(0, 4), "150 ");
  EXPECT_EQ(listener.accept().read_all(), "hello");
}

}  // namespace
}  // namespace tarvex::server::test
