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

}  // namespace
