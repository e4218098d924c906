#include "temporary_folder.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <memory>
#include <sstream>
#include <utility>
#include <vector>

namespace {

constexpr int PATIENCE_MS = 20000;

/// The program running, its output going to files of the folder.
class running_program {
 public:
  running_program(const temporary_folder& folder, std::vector<std::string> arguments) : folder_(folder) {
    arguments.insert(arguments.begin(), SERVER_PROGRAM);
    std::vector<char*> vector;
    for (std::string& argument : arguments) vector.push_back(argument.data());
    vector.push_back(nullptr);
    if (pipe2(out_, O_CLOEXEC) != 0) std::abort();
    pid_ = fork();
    if (pid_ != 0) {
      close(out_[1]);
      return;
    }
    const int err = open(folder.path("stderr").c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0600);
    if (dup2(out_[1], STDOUT_FILENO) >= 0 && dup2(err, STDERR_FILENO) >= 0) execv(SERVER_PROGRAM, vector.data());
    _exit(127);
  }
  running_program(const running_program&) = delete;
  running_program& operator=(const running_program&) = delete;
  ~running_program() {
    if (pid_ > 0) wait_for_end(SIGKILL);
    close(out_[0]);
  }

  /// One line of standard output; empty at its end.
  std::string line() const {
    std::string text;
    char byte = 0;
    pollfd awaited = {out_[0], POLLIN, 0};
    while (poll(&awaited, 1, PATIENCE_MS) == 1 && read(out_[0], &byte, 1) == 1 && byte != '\n') text += byte;
    return text;
  }

  /// \return the exit status, or -1 when a signal ended it.
  int wait_for_end(int signal = 0) {
    if (signal != 0) kill(pid_, signal);
    int status = 0;
    if (waitpid(std::exchange(pid_, -1), &status, 0) < 0) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  std::string errors() const {
    std::ostringstream text;
    text << std::ifstream(folder_.path("stderr")).rdbuf();
    return text.str();
  }

 private:
  const temporary_folder& folder_;
  pid_t pid_ = -1;
  int out_[2] = {-1, -1};
};

/// A TCP socket on loopback that gives up after a while.
class client {
 public:
  explicit client(std::uint16_t port) : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const timeval patience = {PATIENCE_MS / 1000, 0};
    setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(connect(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  }
  client(const client&) = delete;
  client& operator=(const client&) = delete;
  ~client() { close(socket_); }

  std::string line() const {
    std::string text;
    char byte = 0;
    while (recv(socket_, &byte, 1, 0) == 1 && byte != '\n') text += byte;
    return text;
  }

  /// Whether the server closes the connection, whatever it says before.
  bool ends() const {
    char bytes[256];
    ssize_t got = 0;
    while ((got = recv(socket_, bytes, sizeof bytes, 0)) > 0) {
    }
    return got == 0 || errno == ECONNRESET;
  }

 private:
  int socket_;
};

class Program : public testing::Test {
 protected:
  Program() { folder_.write("accounts.toml", ""); }

  std::string configuration(const std::string& server, const std::string& more = "") const {
    return folder_.write("c.toml", "[accounts]\nfile = 'accounts.toml'\n[server]\n" + server +
                                       "\n[storage]\ndsi = 'fake'\n" + more + "\n");
  }

  static std::uint16_t port_of(const std::string& listening) {
    const std::string prefix = "listening on 127.0.0.1:";
    EXPECT_EQ(listening.substr(0, prefix.size()), prefix);
    return static_cast<std::uint16_t>(std::stoul(listening.substr(prefix.size())));
  }

  temporary_folder folder_;
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
  };
  for (const row& row : rows) {
    const std::string file = configuration(row.server, row.storage);
    running_program check(folder_, {"--config", file, "--check"});
    EXPECT_EQ(check.line(), row.line == 0 ? "configuration ok" : "") << row.text;
    EXPECT_EQ(check.wait_for_end(), row.line == 0 ? 0 : 2) << row.text;
    if (row.line == 0) continue;
    EXPECT_TRUE(check.errors().starts_with(file + ":" + std::to_string(row.line) + ": ")) << check.errors();
    EXPECT_NE(check.errors().find(row.text), std::string::npos) << check.errors();
    running_program start(folder_, {"--config", file});
    EXPECT_EQ(start.line(), "") << "must not listen";
    EXPECT_EQ(start.wait_for_end(), 2) << row.text;
  }
}

TEST_F(Program, ServesUpToItsLimitAndEndsItsSessionsOnSigterm) {
  running_program server(folder_, {"--config", configuration("listen = ['127.0.0.1:0']\nmax_sessions = 1")});
  const std::uint16_t port = port_of(server.line());
  const client first(port);
  EXPECT_TRUE(first.line().starts_with("220"));
  const client second(port);
  EXPECT_TRUE(second.line().starts_with("421 "));
  EXPECT_TRUE(second.ends());

  running_program rival(
      folder_, {"--config", configuration("listen = ['127.0.0.1:0', '127.0.0.1:" + std::to_string(port) + "']")});
  EXPECT_EQ(rival.line(), "") << "all addresses or none";
  EXPECT_EQ(rival.wait_for_end(), 1);
  EXPECT_NE(rival.errors().find("cannot listen on 127.0.0.1:" + std::to_string(port) + ": Address already in use"),
            std::string::npos);

  EXPECT_EQ(server.wait_for_end(SIGTERM), 0) << server.errors();
  EXPECT_TRUE(first.ends());
}

TEST_F(Program, SessionsMakeRoomWhenTheyEndAndDoNotOutliveTheListener) {
  running_program server(folder_, {"--config", configuration("listen = ['127.0.0.1:0']\nmax_sessions = 1")});
  const std::uint16_t port = port_of(server.line());
  std::unique_ptr<client> session;
  for (int i = 0; i < 3; ++i) {
    session.reset();
    for (std::string greeting = "421"; greeting.starts_with("421"); greeting = session->line()) {  // until it is reaped
      session = std::make_unique<client>(port);
    }
  }
  server.wait_for_end(SIGKILL);
  EXPECT_TRUE(session->ends());
}

}  // namespace
