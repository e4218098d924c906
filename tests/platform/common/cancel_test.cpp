#include "tarvex_common.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/time.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <ctime>
#include <future>
#include <limits>
#include <thread>

namespace {

using std::chrono::steady_clock;

bool readable(int fd) {
  pollfd entry = {.fd = fd, .events = POLLIN, .revents = 0};
  return poll(&entry, 1, 0) == 1;
}

TEST(Sleep, RefusesInvalidDurationsAtOnce) {
  for (const timespec duration :
       {timespec{0, 1'000'000'000}, timespec{1000, 1'000'000'000}, timespec{-1, 0}, timespec{1000, -1}}) {
    EXPECT_EQ(tarvex_sleep(&duration), EINVAL) << duration.tv_sec << " s " << duration.tv_nsec << " ns";
  }
}

TEST(Sleep, IsNotShortenedBySignals) {
  struct sigaction action = {};
  struct sigaction previous = {};
  static volatile sig_atomic_t signals;
  signals = 0;
  action.sa_handler = [](int) { signals = signals + 1; };
  ASSERT_EQ(sigaction(SIGALRM, &action, &previous), 0);
  const itimerval every_5_ms = {{0, 5000}, {0, 5000}};
  const itimerval off = {};
  setitimer(ITIMER_REAL, &every_5_ms, nullptr);
  const auto start = steady_clock::now();
  const timespec duration = {0, 60'000'000};
  EXPECT_EQ(tarvex_sleep(&duration), 0);
  EXPECT_GE(steady_clock::now() - start, std::chrono::milliseconds(60));
  setitimer(ITIMER_REAL, &off, nullptr);
  sigaction(SIGALRM, &previous, nullptr);
  EXPECT_GT(signals, 0);
}

TEST(Cancel, WakesTheBoundThreadsSleep) {
  tarvex_cancel_t cancel = nullptr;
  ASSERT_EQ(tarvex_cancel_init(&cancel), 0);
  std::promise<void> bound;
  std::jthread sleeper([&] {
    tarvex_cancel_bind(cancel);
    bound.set_value();
    const timespec practically_forever = {std::numeric_limits<time_t>::max(), 0};
    EXPECT_EQ(tarvex_sleep(&practically_forever), ECANCELED);
  });
  bound.get_future().wait();
  const timespec a_moment = {0, 20'000'000};
  EXPECT_EQ(tarvex_sleep(&a_moment), 0) << "other threads sleep on";
  tarvex_cancel_request(cancel);
  sleeper.join();
  tarvex_cancel_destroy(&cancel);
  EXPECT_EQ(cancel, nullptr);
}

TEST(Cancel, ResetTakesTheWishBack) {
  tarvex_cancel_t cancel = nullptr;
  ASSERT_EQ(tarvex_cancel_init(&cancel), 0);
  EXPECT_EQ(tarvex_cancel_fd(), -1);
  tarvex_cancel_bind(cancel);
  const timespec none = {0, 0};
  for (int round = 0; round < 2; ++round) {
    EXPECT_FALSE(tarvex_cancel_requested() || readable(tarvex_cancel_fd()));
    EXPECT_EQ(tarvex_sleep(&none), 0);
    for (int i = 0; i < 3; ++i) tarvex_cancel_request(cancel);
    EXPECT_TRUE(tarvex_cancel_requested() && readable(tarvex_cancel_fd()));
    EXPECT_EQ(tarvex_sleep(&none), ECANCELED);
    tarvex_cancel_reset(cancel);
  }
  tarvex_cancel_bind(nullptr);
  tarvex_cancel_destroy(&cancel);
}

}  // namespace
