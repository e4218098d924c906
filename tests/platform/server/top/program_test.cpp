#include "support/child_program.h"
#include "support/socket.h"
#include "support/temporary_folder.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <string>

namespace {

class Program : public testing::Test {
 protected:
  Program() { folder_.write("accounts.toml", ""); }

  std::string configuration(const std::string& server, const std::string& more = "") const {
    return folder_.write("c.toml", "[accounts]\nfile = 'accounts.toml'\n[server]\n" + server +
                                       "\n[storage]\ndsi = 'fake'\n" + more + "\n[security]\nuser = '" + user_ + "'\n");
  }

  static std::uint16_t port_of(const std::string& listening) {
    const std::string prefix = "listening on 127.0.0.1:";
    EXPECT_EQ(listening.substr(0, prefix.size()), prefix);
    return static_cast<std::uint16_t>(std::stoul(listening.substr(prefix.size())));
  }

  temporary_folder folder_;
  std::string user_ = "root";  ///< of no account where the tests are not run by root
};

TEST_F(Program, ChecksItsConfiguration) {
  struct row {
    const char* server;
    const char* storage;
    unsigned line;  ///< 0: no mistake
    const char* text;
  };
  const row rows[] = {
      {"max_sessions = 5", "[storage.settings]\nlevel = 1", 0, ""},
      {"max_sessons = 5", "", 4, "unknown key \"max_sessons\""},
      {"max_sessions = 5", "library = '/nonexistent.so'", 7, "cannot be loaded"},
      {"max_sessions = 5", "[storage.settings]\nlevel = 1\nlevl = 1", 9, "unknown setting \"levl\""},
      {"max_sessions = 5", "[storage.settings]\nranged = 9", 0, ""},
      {"max_sessions = 5", "[storage.settings]\nranged = 10", 8, "expected a number from 1 to 9, found 10"},
      {"max_sessions = 5", "[storage.settings]\nranged = 0", 8, "expected a number from 1 to 9, found 0"},
  };
  for (const row& row : rows) {
    const std::string file = configuration(row.server, row.storage);
    child_program check({SERVER_PROGRAM, "--config", file, "--check"});
    EXPECT_EQ(check.line(), row.line == 0 ? "configuration ok" : "") << row.text;
    EXPECT_EQ(check.wait_for_end(), row.line == 0 ? 0 : 2) << row.text;
    if (row.line == 0) continue;
    EXPECT_TRUE(check.errors().starts_with(file + ":" + std::to_string(row.line) + ": ")) << check.errors();
    EXPECT_NE(check.errors().find(row.text), std::string::npos) << check.errors();
    child_program start({SERVER_PROGRAM, "--config", file});
    EXPECT_EQ(start.line(), "") << "must not listen";
    EXPECT_EQ(start.wait_for_end(), 2) << row.text;
  }
}

TEST_F(Program, StartedByRootBecomesAnotherOrRefuses) {
  if (geteuid() != 0) GTEST_SKIP() << "only root becomes others";
  user_ = "nobody-of-this-name";
  for (const char* const check : {"--check", "--log-level=info"}) {
    child_program refused({SERVER_PROGRAM, "--config", configuration("listen = ['127.0.0.1:0']"), check});
    EXPECT_EQ(refused.line(), "") << "must not listen";
    EXPECT_EQ(refused.wait_for_end(), 2);
    EXPECT_NE(refused.errors().find("there is no user \"nobody-of-this-name\""), std::string::npos);
  }
  user_ = "nobody";
  child_program hidden({SERVER_PROGRAM, "--config", configuration("listen = ['127.0.0.1:0']")});
  EXPECT_EQ(hidden.line(), "");
  EXPECT_EQ(hidden.wait_for_end(), 1) << "the folder is root's alone";
  EXPECT_NE(hidden.errors().find("accounts.toml cannot be used by the user"), std::string::npos) << hidden.errors();
  std::filesystem::permissions(folder_.path(), std::filesystem::perms(0755));
  child_program server({SERVER_PROGRAM, "--config", configuration("listen = ['127.0.0.1:0']")});
  const auto session = loopback_socket::connect(port_of(server.line()));
  EXPECT_TRUE(session.read_line().starts_with("220"));
  EXPECT_EQ(server.wait_for_end(SIGTERM), 0) << server.errors();
}

TEST_F(Program, ServesUpToItsLimitAndEndsItsSessionsOnSigterm) {
  child_program server({SERVER_PROGRAM, "--config", configuration("listen = ['127.0.0.1:0']\nmax_sessions = 1")});
  const std::uint16_t port = port_of(server.line());
  const auto first = loopback_socket::connect(port);
  EXPECT_TRUE(first.read_line().starts_with("220"));
  EXPECT_TRUE(loopback_socket::connect(port).read_all().starts_with("421 "));

  const std::string address = "127.0.0.1:" + std::to_string(port);
  child_program rival({SERVER_PROGRAM, "--config", configuration("listen = ['127.0.0.1:0', '" + address + "']")});
  EXPECT_EQ(rival.line(), "") << "all addresses or none";
  EXPECT_EQ(rival.wait_for_end(), 1);
  EXPECT_NE(rival.errors().find("cannot listen on " + address + ": Address already in use"), std::string::npos);

  EXPECT_EQ(server.wait_for_end(SIGTERM), 0) << server.errors();
  (void)first.read_all();  // fails when the session's end does not come
}

TEST_F(Program, SessionsMakeRoomWhenTheyEndAndDoNotOutliveTheListener) {
  child_program server({SERVER_PROGRAM, "--config", configuration("listen = ['127.0.0.1:0']\nmax_sessions = 1")});
  const std::uint16_t port = port_of(server.line());
  loopback_socket session;
  for (int i = 0; i < 3; ++i) {
    session.close();
    for (std::string greeting = "421"; greeting.starts_with("421"); greeting = session.read_line())  // until reaped
      session = loopback_socket::connect(port);
  }
  server.wait_for_end(SIGKILL);
  (void)session.read_all();
}

}  // namespace
