#include "support/child_program.h"
#include "support/socket.h"
#include "support/temporary_folder.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <optional>
#include <string>

namespace {

/// The program serving on a free port, with what it logs in a FIFO or in child_program.
class Listener : public testing::Test {
 protected:
  Listener() {
    folder_.write("accounts.toml", "");
    folder_.write("c.toml",
                  "[accounts]\nfile = 'accounts.toml'\n[server]\nlisten = ['127.0.0.1:0']\n[storage]\ndsi = 'fake'\n"
                  "[security]\nuser = 'root'\n");
  }

  void start(const std::string& redirection = "") {
    const std::string script = "exec \"$0\" --log-level debug --config \"$1\" " + redirection;
    server_.emplace(std::vector<std::string>{"/bin/sh", "-c", script, SERVER_PROGRAM, folder_.path("c.toml")});
    const std::string listening = server_->line();
    ASSERT_TRUE(listening.starts_with("listening on 127.0.0.1:")) << server_->errors();
    port_ = static_cast<std::uint16_t>(std::stoul(listening.substr(listening.rfind(':') + 1)));
  }

  loopback_socket connect() const {
    auto control = loopback_socket::connect(port_);
    EXPECT_TRUE(control.read_line().starts_with("220 "));
    return control;
  }

  /// The reply to a login that cannot come out well.
  std::string log_in() const {
    const loopback_socket control = connect();
    control.write("USER nobody\r\nPASS secret\r\n");
    EXPECT_TRUE(control.read_line().starts_with("331 "));
    return control.read_line();
  }

  /// The process of the session that was started last.
  pid_t session() const {
    const std::string log = server_->errors();
    const std::string before = "] session ";
    return std::stoi(log.substr(log.rfind(before, log.rfind(" started for ")) + before.size()));
  }

  temporary_folder folder_;
  std::optional<child_program> server_;
  std::uint16_t port_ = 0;
};

TEST_F(Listener, LogThatNobodyReadsStopsNobody) {
  const std::string fifo = folder_.path("log");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const int reader = open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  start("2>" + fifo);

  const int stuffing = open(fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
  while (write(stuffing, "x", 1) == 1) {
  }
  EXPECT_TRUE(log_in().starts_with("530 ")) << "a reader stalls";

  // A line may come as soon as there is room, while the rest is still being read.
  std::string log, piece(1 << 20, '\0');
  const auto read_all = [&] {
    for (ssize_t count = 0; (count = read(reader, piece.data(), piece.size())) > 0;)
      log.append(piece, 0, static_cast<std::size_t>(count));
    log.erase(0, log.find_first_not_of('x'));
  };
  read_all();
  EXPECT_TRUE(log_in().starts_with("530 "));
  read_all();
  EXPECT_NE(log.find(" lines of the log were dropped"), std::string::npos) << log;

  close(stuffing);
  close(reader);
  EXPECT_TRUE(log_in().starts_with("530 ")) << "the reader is gone";
}

TEST_F(Listener, InterruptIsAsKindAsTermination) {
  start();
  const loopback_socket control = connect();
  kill(session(), SIGINT);  // a terminal sends it to every process
  control.write("NOOP\r\n");
  EXPECT_TRUE(control.read_line().starts_with("200 "));
  EXPECT_EQ(server_->wait_for_end(SIGINT), 0) << server_->errors();
  EXPECT_TRUE(control.read_all().starts_with("421 "));
}

TEST_F(Listener, SessionsKeepNoForeignDescriptorAndNoCore) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  fcntl(ends[1], F_SETFD, 0);  // the program inherits it
  start();
  close(ends[1]);
  const loopback_socket control = connect();
  const pid_t of = session();
  rlimit core = {1, 1};
  EXPECT_EQ(prlimit(of, RLIMIT_CORE, nullptr, &core), 0);
  EXPECT_EQ(core.rlim_max, 0U);
  struct stat status = {};
  stat(("/proc/" + std::to_string(of)).c_str(), &status);
  EXPECT_EQ(status.st_uid, 0U) << "others of the user may look into the session's memory";

  kill(of, SIGSTOP);  // so that it outlives the listener for a moment
  server_->wait_for_end(SIGKILL);
  pollfd end = {ends[0], POLLIN, 0};
  EXPECT_EQ(poll(&end, 1, 5000), 1) << "the session holds what the program was started with";
  kill(of, SIGKILL);
  close(ends[0]);
}

TEST_F(Listener, AccountsThatCannotBeReadAreNotTheClientsFault) {
  start();
  EXPECT_EQ(log_in(), "530 Login incorrect.\r");
  const std::string accounts = folder_.path("accounts.toml");
  chmod(accounts.c_str(), 0622);
  EXPECT_TRUE(log_in().starts_with("421 ")) << "others may write it";
  std::filesystem::remove(accounts);
  EXPECT_TRUE(log_in().starts_with("421 ")) << "there is none";
  ASSERT_EQ(mkfifo(accounts.c_str(), 0600), 0);
  EXPECT_TRUE(log_in().starts_with("421 ")) << "a FIFO";
  std::filesystem::remove(accounts);
  folder_.write("accounts.toml", "");
  EXPECT_EQ(log_in(), "530 Login incorrect.\r");
}

TEST_F(Listener, CheckLooksAtCredentialFiles) {
  struct row {
    const char* name;
    mode_t mode;
    bool fifo;
    int status;
    const char* text;
  };
  const row rows[] = {
      {"good", 0600, false, 0, ""},
      {"shared", 0620, false, 2, "accounts.toml:3: credential in [a]: "},
      {"pipe", 0600, true, 2, "is no regular file"},
  };
  for (const row& row : rows) {
    const std::string path = folder_.path(row.name);
    if (row.fifo) {
      ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    } else {
      folder_.write(row.name, "{}");
    }
    chmod(path.c_str(), row.mode);
    folder_.write("accounts.toml", "[a]\npassword = '$6$a$b'\ncredential = '" + std::string(row.name) + "'\n");
    child_program check({SERVER_PROGRAM, "--config", folder_.path("c.toml"), "--check"});
    EXPECT_EQ(check.line(), row.status == 0 ? "configuration ok" : "") << row.name;
    EXPECT_EQ(check.wait_for_end(), row.status) << row.name;
    EXPECT_NE(check.errors().find(row.text), std::string::npos) << check.errors();
  }
}

}  // namespace
