#include "core_session_fixture.h"

namespace tarvex::server::test {

TEST_F(SessionTest, First) {
  log_in();
  EXPECT_EQ(command("PWD"), "257 \"/\" is the current folder.\r\n");
  EXPECT_EQ(command("CWD missing"), "550-PATH_NOT_FOUND\r\n550-GridFTP-Path: \"/missing\"\r\n550 End.\r\n");
  {
    const loopback_socket data = passive();
    EXPECT_EQ(command("NLST dir").substr(0, 4), "150 ");
    EXPECT_EQ(data.read_all(), "f0\r\nf1\r\nf2\r\n");
    EXPECT_EQ(reply().substr(0, 4), "226 ");
  }
  {
    const loopback_socket data = passive();
    EXPECT_EQ(command("RETR file").substr(0, 4), "150 ");
    EXPECT_EQ(data.read_all(), "hello");
    EXPECT_EQ(reply().substr(0, 4), "226 ");
  }
  EXPECT_EQ(command("QUIT").substr(0, 4), "221 ");
  EXPECT_TRUE(ended());
  EXPECT_EQ(script.destroyed, 1);
}

}  // namespace tarvex::server::test
