#include "connection_seats.h"
#include "flight_width.h"
#include "part_bucket.h"
#include "plugin_fixture.h"
#include "worker_pool.h"

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <csignal>
#include <optional>
#include <set>

using namespace std::chrono_literals;
using tarvex::box::connection_seats;
using tarvex::box::flight_width;
using tarvex::box::part_bucket;
using tarvex::box::part_bucket_wait;
using tarvex::box::worker_pool;
using testing::ElementsAre;
using testing::SizeIs;

namespace {

class ConcurrencyTest : public PluginTest {
 protected:
  ConcurrencyTest() { std::filesystem::create_directories(home / ".tarvex"); }

  static int take_all(connection_seats& seats) {
    int got = 0;
    while (got <= connection_seats::COUNT && seats.take()) ++got;
    return got;
  }
};

TEST_F(ConcurrencyTest, SessionsOfAUserShareSeats) {
  std::optional<connection_seats> one("7");
  connection_seats other("7"), stranger("8");
  for (int i = 0; i < 5; ++i) EXPECT_TRUE(one->take());
  EXPECT_EQ(take_all(other), 3);
  EXPECT_FALSE(one->take());
  EXPECT_EQ(take_all(stranger), 8);
  other.give();
  EXPECT_EQ(other.taken(), 2);
  EXPECT_TRUE(one->take());
  EXPECT_FALSE(other.take());
  one.reset();
  EXPECT_EQ(take_all(other), 6);
  for (int i = 0; i < 9; ++i) other.give();  // one more than there are does no harm
  EXPECT_EQ(other.taken(), 0);
  EXPECT_EQ(take_all(other), 8);
}

TEST_F(ConcurrencyTest, AKilledProcessGivesItsSeatsBack) {
  int taken[2];
  ASSERT_EQ(pipe(taken), 0);
  const pid_t child = fork();
  if (child == 0) {
    connection_seats seats("7");
    const char count = static_cast<char>(take_all(seats));
    if (write(taken[1], &count, 1) == 1) pause();
    _exit(1);
  }
  char count = 0;
  ASSERT_EQ(read(taken[0], &count, 1), 1);
  EXPECT_EQ(count, 8);
  connection_seats seats("7");
  EXPECT_FALSE(seats.take());
  ASSERT_EQ(kill(child, SIGKILL), 0);
  ASSERT_EQ(waitpid(child, nullptr, 0), child);
  EXPECT_EQ(take_all(seats), 8);
  for (const int end : taken) close(end);
}

TEST_F(ConcurrencyTest, SeatsWithoutFilesAreTheObjectsOwn) {
  box_script.user_home = "/nonexistent";
  connection_seats one("7"), other("7");
  EXPECT_EQ(take_all(one), 8);
  EXPECT_EQ(take_all(other), 8);
  one.give();
  EXPECT_TRUE(one.take());
}

TEST_F(ConcurrencyTest, TheWidthGivesWay) {
  // A digit: a request that took so many seconds; r: one that was refused.
  const struct {
    const char* what;
    int most;
    std::string events;
    std::string widths;  ///< after each of them
  } rows[] = {
      {"stays where it may not grow", 4, "1111111111", "4444444444"},
      {"halves with each refusal, down to one", 8, "rrrrr", "42111"},
      {"grows by one after as many as are on their way", 4, "r11111111", "223334444"},
      {"a refusal begins the count anew", 4, "r1r11", "22122"},
      {"halves when four take twice as long as the best four", 4, "11112222", "44444442"},
      {"a little slower is no reason", 8, "1111112211112221", "8888888888888888"},
      {"the best counts, not the last", 8, "2222111122221111", "8888888888844445"},
      {"what was on its way before says nothing after", 8, "1111222r2111", "888888844445"},
      {"one stays one", 1, "11119999r1", "1111111111"},
  };
  for (const auto& row : rows) {
    flight_width width(row.most);
    std::string widths;
    for (const char event : row.events) {
      if (event == 'r') {
        width.refused();
      } else {
        width.good((event - '0') * 1s);
      }
      widths += std::to_string(width.width());
    }
    EXPECT_EQ(widths, row.widths) << row.what;
  }
}

TEST_F(ConcurrencyTest, TheBucketHolds240AndFillsAt4ASecond) {
  constexpr int64_t SECOND = 1000000, NOW = 1600000000 * SECOND, FULL = 60 * SECOND;
  const struct {
    const char* what;
    int64_t due, wait, due_after;
  } rows[] = {
      {"never used", 0, 0, NOW + SECOND / 4},
      {"full again", NOW - 1, 0, NOW + SECOND / 4},
      {"half full", NOW + FULL / 2, 0, NOW + FULL / 2 + SECOND / 4},
      {"the last one in it", NOW + FULL - SECOND / 4, 0, NOW + FULL},
      {"empty", NOW + FULL, SECOND / 4, NOW + FULL + SECOND / 4},
      {"others wait already", NOW + FULL + SECOND, SECOND + SECOND / 4, NOW + FULL + SECOND + SECOND / 4},
      {"the clock was set back", NOW + 3 * FULL, SECOND / 4, NOW + FULL + SECOND / 4},
  };
  for (const auto& row : rows) {
    int64_t due = row.due;
    EXPECT_EQ(part_bucket_wait(NOW, due), row.wait) << row.what;
    EXPECT_EQ(due, row.due_after) << row.what;
  }
}

TEST_F(ConcurrencyTest, SessionsOfAUserShareTheBucket) {
  part_bucket one("7"), other("7"), stranger("8");
  for (int i = 0; i < 120; ++i) {
    one.draw();
    other.draw();
  }
  stranger.draw();
  EXPECT_THAT(box_script.waits, SizeIs(0));
  other.draw();
  one.draw();
  EXPECT_THAT(box_script.waits, ElementsAre("0.250000000", "0.500000000"));
}

TEST_F(ConcurrencyTest, ThePoolRunsJobsOnFewThreadsThatStay) {
  tarvex_cancel_t source = nullptr;
  ASSERT_EQ(tarvex_cancel_init(&source), 0);
  tarvex_cancel_bind(source);
  std::mutex mutex;
  std::condition_variable changed;
  std::multiset<std::thread::id> threads;
  int bound = 0, at_once = 0;
  bool go = false;
  {
    worker_pool pool(3);
    const auto job = [&] {
      std::unique_lock lock(mutex);
      threads.insert(std::this_thread::get_id());
      if (tarvex_cancel_bound() == source) ++bound;
      ++at_once;
      changed.notify_all();
      changed.wait(lock, [&] { return go; });
    };
    for (int i = 0; i < 5; ++i) pool.run(job);
    std::unique_lock lock(mutex);
    EXPECT_TRUE(changed.wait_for(lock, 10s, [&] { return at_once == 3; }));
    EXPECT_FALSE(changed.wait_for(lock, 50ms, [&] { return at_once > 3; }));
    go = true;
    changed.notify_all();
  }  // the last jobs are waited for
  tarvex_cancel_bind(nullptr);
  EXPECT_EQ(bound, 5);
  EXPECT_EQ(std::set(threads.begin(), threads.end()).size(), 3u);
  tarvex_cancel_destroy(&source);
}

TEST_F(ConcurrencyTest, AnIdleThreadOfThePoolIsUsedAgain) {
  std::set<std::thread::id> threads;
  worker_pool pool(4);
  for (int i = 0; i < 4; ++i) {
    std::atomic<bool> done = false;
    pool.run([&] {
      threads.insert(std::this_thread::get_id());
      done = true;
      done.notify_all();
    });
    done.wait(false);
    std::this_thread::sleep_for(5ms);  // until the thread waits again
  }
  EXPECT_THAT(threads, SizeIs(1));
}

}  // namespace
