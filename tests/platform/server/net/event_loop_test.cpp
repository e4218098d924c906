#include "net/event_loop.h"

#include "net/wake.h"
#include "net_fixture.h"

#include <stdexcept>

namespace tarvex::server::test {
namespace {

using namespace std::chrono_literals;

class EventLoopTest : public NetTest {};

boost::asio::awaitable<void> wait_and_throw(event_loop& loop) {
  wake never(loop);
  EXPECT_FALSE(co_await never.wait_for(1ms));
  throw std::runtime_error("thrown");
}

boost::asio::awaitable<void> wait_for_ever(event_loop& loop) {
  wake never(loop);
  co_await never.wait();
  ADD_FAILURE() << "nobody ended the wait";
}

TEST_F(EventLoopTest, WhatACoroutineThrowsLeavesTheLoop) {
  loop.spawn(wait_for_ever(loop));  // destroyed with the loop
  loop.spawn(wait_and_throw(loop));
  EXPECT_THROW(loop.run(), std::runtime_error);
}

TEST_F(EventLoopTest, ANotifyWakesOnce) {
  wake alarm(loop);
  alarm.notify();
  alarm.notify();
  EXPECT_TRUE(await(alarm.wait_for(0ms))) << "kept";
  EXPECT_FALSE(await(alarm.wait_for(1ms))) << "kept once";
  auto waiting = begin(alarm.wait_for(20s));
  idle(5ms);
  EXPECT_FALSE(is_there(waiting));
  loop.post([&] { alarm.notify(); });
  EXPECT_TRUE(until([&] { return is_there(waiting); }));
  EXPECT_TRUE(waiting.get());
  EXPECT_FALSE(await(alarm.wait_for(1ms))) << "used up";
}

}  // namespace
}  // namespace tarvex::server::test
