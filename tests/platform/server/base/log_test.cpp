#include "base/log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <string>

namespace tarvex::server {
namespace {

TEST(Log, WritesOneLineForEachCallFromItsLevelOn) {
  log_start(log_level::warning);
  testing::internal::CaptureStderr();
  log_info("not shown");
  log_warning("name {} {}% %s", "a\r\nFORGED \x7f\xc2\x85", 5);
  log_error("{}\xc3\xa9", std::string(5000, 'x'));
  const std::string written = testing::internal::GetCapturedStderr();
  log_start(log_level::info);
  const std::size_t end = written.find('\n') + 1;
  EXPECT_NE(written.find("Z warning ["), std::string::npos) << written;
  EXPECT_TRUE(written.substr(0, end).ends_with("] name a\\x0d\\x0aFORGED \\x7f\\xc2\\x85 5% %s\n")) << written;
  EXPECT_EQ(written.find('\n', end), written.size() - 1);
  EXPECT_EQ(written.size() - end, 4096U);
  EXPECT_TRUE(written.ends_with("xxx ...\n"));
}

/// Standard error led elsewhere for a while.
class redirected_stderr {
 public:
  explicit redirected_stderr(int to) : before_(dup(STDERR_FILENO)) { dup2(to, STDERR_FILENO); }
  redirected_stderr(const redirected_stderr&) = delete;
  redirected_stderr& operator=(const redirected_stderr&) = delete;
  ~redirected_stderr() {
    dup2(before_, STDERR_FILENO);
    close(before_);
  }

 private:
  int before_;
};

/// All that can be read from a non-blocking descriptor by now.
std::string drain(int fd) {
  std::string text;
  char bytes[4096];
  for (ssize_t got = 0; (got = read(fd, bytes, sizeof bytes)) > 0;) text.append(bytes, static_cast<std::size_t>(got));
  return text;
}

TEST(Log, WaitsForNoReaderAndCountsWhatItDrops) {
  signal(SIGPIPE, SIG_IGN);
  int pipe_ends[2], socket_ends[2];
  ASSERT_EQ(pipe2(pipe_ends, O_CLOEXEC), 0);
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, socket_ends), 0);
  for (int* const ends : {pipe_ends, socket_ends}) {
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
    std::string first, second;
    {
      const redirected_stderr away(ends[1]);
      for (int i = 0; i < 2000; ++i) log_info("line {} {}", i, std::string(1000, 'x'));  // a pipe takes 64 KiB
      first = drain(ends[0]);
      log_info("after");
      second = drain(ends[0]);
      EXPECT_EQ(fcntl(STDERR_FILENO, F_GETFL) & O_NONBLOCK, 0) << "others write there too";
      close(ends[0]);
      log_info("nobody is there");
    }
    close(ends[1]);
    std::size_t taken = 0;
    for (std::size_t at = 0; (at = first.find("] line ", at)) != std::string::npos; ++at) ++taken;
    EXPECT_GT(taken, 20U);
    EXPECT_TRUE(first.ends_with("x\n")) << "half a line: " << first.substr(first.size() - 20);
    EXPECT_NE(second.find(" " + std::to_string(2000 - taken) + " lines of the log were dropped"), std::string::npos)
        << second;
    EXPECT_TRUE(second.ends_with("after\n")) << second;
  }
}

}  // namespace
}  // namespace tarvex::server
