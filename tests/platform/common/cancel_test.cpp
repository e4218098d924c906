#include "tarvex_common.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <ctime>
#include <future>
#include <limits>
#include <thread>

namespace {

constexpr timespec PRACTICALLY_FOREVER = {std::numeric_limits<time_t>::max(), 0};

class Cancel : public testing::Test {
 protected:
  Cancel() { EXPECT_EQ(tarvex_cancel_init(&cancel), 0); }
  ~Cancel() override {
    tarvex_cancel_bind(nullptr);
    tarvex_cancel_destroy(&cancel);
    EXPECT_EQ(cancel, nullptr);
  }
  tarvex_cancel_t cancel = nullptr;
};

TEST(Sleep, RefusesInvalidDurationsAtOnce) {
  for (const timespec duration :
       {timespec{0, 1'000'000'000}, timespec{1000, 1'000'000'000}, timespec{-1, 0}, timespec{1000, -1}}) {
    EXPECT_EQ(tarvex_sleep(&duration), EINVAL) << duration.tv_sec << " s " << duration.tv_nsec << " ns";
  }
}

TEST(Sleep, IsNotShortenedBySignals) {
  struct sigaction action = {}, previous = {};
  static volatile sig_atomic_t signals;
  signals = 0;
  action.sa_handler = [](int) { signals = signals + 1; };
  ASSERT_EQ(sigaction(SIGALRM, &action, &previous), 0);
  const itimerval every_5_ms = {{0, 5000}, {0, 5000}}, off = {};
  setitimer(ITIMER_REAL, &every_5_ms, nullptr);
  const auto start = std::chrono::steady_clock::now();
  const timespec duration = {0, 60'000'000};
  EXPECT_EQ(tarvex_sleep(&duration), 0);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(60));
  setitimer(ITIMER_REAL, &off, nullptr);
  sigaction(SIGALRM, &previous, nullptr);
  EXPECT_GT(signals, 0);
}

TEST_F(Cancel, WakesTheBoundThreadsSleep) {
  std::promise<void> bound;
  std::jthread sleeper([&] {
    tarvex_cancel_bind(cancel);
    bound.set_value();
    EXPECT_EQ(tarvex_sleep(&PRACTICALLY_FOREVER), ECANCELED);
  });
  bound.get_future().wait();
  const timespec a_moment = {0, 20'000'000};
  EXPECT_EQ(tarvex_sleep(&a_moment), 0) << "other threads sleep on";
  tarvex_cancel_request(cancel);
}

TEST_F(Cancel, ResetTakesTheWishBack) {
  EXPECT_EQ(tarvex_cancel_fd(), -1);
  tarvex_cancel_bind(cancel);
  const auto cancelled = [] {
    pollfd entry = {.fd = tarvex_cancel_fd(), .events = POLLIN, .revents = 0};
    const timespec none = {0, 0};
    const bool wished = tarvex_cancel_requested();
    EXPECT_EQ(poll(&entry, 1, 0) == 1, wished);
    EXPECT_EQ(tarvex_sleep(&none), wished ? ECANCELED : 0);
    return wished;
  };
  for (int round = 0; round < 2; ++round) {
    EXPECT_FALSE(cancelled());
    for (int i = 0; i < 3; ++i) tarvex_cancel_request(cancel);
    EXPECT_TRUE(cancelled());
    tarvex_cancel_reset(cancel);
  }
}

/// A lock of the whole file that another process holds, waited for.
int wait_for_lock(void* fd) {
  struct flock lock = {.l_type = F_WRLCK, .l_whence = SEEK_SET, .l_start = 0, .l_len = 0, .l_pid = 0};
  return fcntl(*static_cast<int*>(fd), F_SETLKW, &lock) == 0 ? 0 : errno;
}

TEST_F(Cancel, EndsAWaitForALock) {
  int fd = open(testing::TempDir().c_str(), O_TMPFILE | O_RDWR, 0600);
  ASSERT_GE(fd, 0);
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t holder = fork();
  if (holder == 0) _exit(wait_for_lock(&fd) == 0 && write(ready[1], "x", 1) == 1 ? pause() : 1);
  char byte = 0;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  std::promise<int> outcome;
  std::jthread waiter([&] {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);  // as a session's threads may have it
    tarvex_cancel_bind(cancel);
    EXPECT_EQ(tarvex_cancel_interruptible(wait_for_lock, &fd), ECANCELED);
    EXPECT_EQ(tarvex_cancel_interruptible(wait_for_lock, &fd), ECANCELED) << "and does not begin another";
    tarvex_cancel_reset(cancel);
    outcome.set_value(tarvex_cancel_interruptible(wait_for_lock, &fd));
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  const auto asked = std::chrono::steady_clock::now();
  tarvex_cancel_request(cancel);
  EXPECT_LT(std::chrono::steady_clock::now() - asked, std::chrono::milliseconds(200));
  kill(holder, SIGKILL);
  waitpid(holder, nullptr, 0);
  EXPECT_EQ(outcome.get_future().get(), 0);
  for (const int open_fd : {fd, ready[0], ready[1]}) close(open_fd);
}

}  // namespace
