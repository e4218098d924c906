#include "plugin_fixture.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <fstream>

using testing::ElementsAre;
using testing::HasSubstr;

namespace {

class RetryTest : public PluginTest {
 protected:
  RetryTest() { std::filesystem::create_directories(home / ".tarvex"); }
};

TEST_F(RetryTest, SpacesRequests) {
  tarvex_box_retry_t retry{};
  tarvex_i_box_retry_state_create("u", 16, &retry);
  ASSERT_GE(retry.fd, 0);
  const time_t now = box_script.now.tv_sec;
  const struct {
    timespec last;
    suseconds_t now_us;
    uint64_t retry_after;
    unsigned delay;
    std::vector<std::string> waits;
  } rows[] = {
      {{now, 0}, 0, 0, 62500, {"0.62500000"}},
      {{now, 1000000}, 40000, 0, 62500, {"0.23500000"}},
      {{now, 0}, 62500, 0, 62500, {}},
      {{now, 999000000}, 999500, 0, 62500, {"0.62000000"}},
      {{now - 1, 999000000}, 1000, 0, 62500, {"0.60500000"}},  // 2 ms over a second's edge
      {{now - 1, 0}, 0, 0, 62500, {}},
      {{now, 10000000}, 0, 0, 62500, {"0.52500000"}},  // a stamp in the future counts like one in the past
      {{now + 1, 0}, 0, 0, 62500, {}},
      {{now, 0}, 0, 0, 1000000, {}},  // a whole second is no valid wait
      {{0, 0}, 0, 3, 62500, {"3.0"}},
      {{0, 0}, 0, 60, 62500, {"25.0"}},
      {{now, 0}, 0, 1, 62500, {"1.0", "0.62500000"}},
      {{INT64_MIN, INT64_MIN}, 0, 0, 62500, {}},  // a damaged file
      {{now, INT64_MIN}, 0, 0, 62500, {}},
  };
  for (const auto& row : rows) {
    retry.delay = row.delay;
    retry.shared->last = row.last;
    box_script.now.tv_usec = row.now_us;
    tarvex_i_box_retry_delay(row.retry_after, &retry);
    EXPECT_EQ(std::exchange(box_script.waits, {}), row.waits) << row.last.tv_sec << "." << row.last.tv_nsec;
    EXPECT_EQ(retry.shared->last.tv_sec, now);
    EXPECT_EQ(retry.shared->last.tv_nsec, row.now_us * 1000);
  }
  tarvex_i_box_retry_delay(2, nullptr);
  EXPECT_THAT(box_script.waits, ElementsAre("2.0"));
  tarvex_i_box_retry_state_destroy(&retry);
  EXPECT_EQ(retry.fd, -1);
  EXPECT_EQ(retry.shared, nullptr);
}

TEST_F(RetryTest, WaitsPlainlyWithoutALock) {
  tarvex_box_retry_t retry{};
  std::filesystem::remove(home / ".tarvex");  // the directory of the directory is not made
  tarvex_i_box_retry_state_create("u", 4, &retry);
  EXPECT_TRUE(retry.is);
  EXPECT_EQ(retry.fd, -1);
  ASSERT_NE(retry.shared, nullptr);
  tarvex_i_box_retry_delay(0, &retry);
  EXPECT_THAT(box_script.waits, ElementsAre("0.250000000"));
  EXPECT_EQ(retry.shared->last.tv_sec, 0);
  EXPECT_THAT(text_of(tarvex_i_box_retry_state_lock(&retry, false)), HasSubstr("System error in fnctl: "));
  tarvex_i_box_retry_state_destroy(&retry);
}

TEST_F(RetryTest, UsesOnlyFilesOfItsUser) {
  const std::filesystem::path file = home / ".tarvex/box-r/u";
  std::filesystem::create_directories(file.parent_path());
  const struct {
    const char* content;
    uid_t owner;
    bool used;
  } rows[] = {{"", geteuid(), true}, {"damaged, and longer than it should be", geteuid(), true}, {"", 12345, false}};
  for (const auto& row : rows) {
    std::ofstream(file) << row.content;
    if (chown(file.c_str(), row.owner, static_cast<gid_t>(-1)) != 0) GTEST_SKIP() << "needs to give files away";
    tarvex_box_retry_t retry{};
    tarvex_i_box_retry_state_create("u", 16, &retry);
    EXPECT_EQ(retry.fd >= 0, row.used);
    EXPECT_EQ(retry.shared->last.tv_nsec, 0);
    EXPECT_EQ(std::filesystem::file_size(file), row.used ? 24u : 0u);
    tarvex_i_box_retry_state_destroy(&retry);
  }
}

TEST_F(RetryTest, TriesAgainForALockThatCannotBeHad) {
  const struct {
    const char* name;
    std::deque<int> lock_errors;
    int failing_fstats;
    std::vector<std::string> waits;
  } rows[] = {
      {"held", {EAGAIN, EACCES}, 0, {"1.0", "1.0"}},
      {"no-locks-for-now", {ENOLCK}, 0, {"1.0"}},
      {"no-status", {EAGAIN}, 1, {}},  // tried again at once
  };
  for (const auto& row : rows) {
    tarvex_box_upload_state_t state{};
    tarvex_box_retry_t retry{};
    for (const bool pacing : {false, true}) {
      box_script.lock_errors = row.lock_errors;
      box_script.failing_fstats = row.failing_fstats;
      pacing ? tarvex_i_box_retry_state_create(row.name, 16, &retry)
             : tarvex_i_box_upload_state_create(row.name, &state);
      EXPECT_EQ(std::exchange(box_script.waits, {}), row.waits) << row.name;
      EXPECT_GE(pacing ? retry.fd : state.fd, 0) << row.name;
      EXPECT_EQ(box_script.failing_fstats, 0);
    }
    tarvex_i_box_upload_state_destroy(&state);
    tarvex_i_box_retry_state_destroy(&retry);
  }
}

TEST_F(RetryTest, TakesARateOfNoneForNoSpacing) {
  tarvex_box_retry_t retry{};
  tarvex_i_box_retry_state_create("u", 0, &retry);
  tarvex_i_box_retry_delay(0, &retry);
  tarvex_i_box_retry_delay(0, &retry);
  EXPECT_EQ(box_script.waits.size(), 0u);
  tarvex_i_box_retry_state_destroy(&retry);
}

/// Runs `work` in so many processes at once, and waits for them.
template <typename Work>
void in_processes(int count, Work work) {
  std::vector<pid_t> children;
  for (int i = 0; i < count; ++i) {
    const pid_t child = fork();
    if (child == 0) {
      work();
      _exit(0);
    }
    children.push_back(child);
  }
  for (const pid_t child : children) {
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
  }
}

TEST_F(RetryTest, SeveralProcessesKeepTheSpacing) {
  box_script.real_time = true;
  constexpr int PROCESSES = 4;
  constexpr int REQUESTS = 5;
  const std::filesystem::path stamps = home / "stamps";
  in_processes(PROCESSES, [&] {
    tarvex_box_retry_t retry{};
    tarvex_i_box_retry_state_create("u", 100, &retry);
    const int out = open(stamps.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    for (int i = 0; i < REQUESTS; ++i) {
      tarvex_i_box_retry_delay(0, &retry);
      const std::string line = std::to_string(retry.shared->last.tv_sec * 1000000 + retry.shared->last.tv_nsec / 1000);
      if (write(out, (line + "\n").c_str(), line.size() + 1) < 0) _exit(2);
    }
    if (retry.fd == -1) _exit(1);
    tarvex_i_box_retry_state_destroy(&retry);
  });
  std::vector<int64_t> times;
  std::ifstream in(stamps);
  for (int64_t time = 0; in >> time;) times.push_back(time);
  std::sort(times.begin(), times.end());
  ASSERT_EQ(times.size(), static_cast<size_t>(PROCESSES * REQUESTS));
  // A stamp may have been read after the next process wrote its own: those are equal.
  times.erase(std::unique(times.begin(), times.end()), times.end());
  for (size_t i = 1; i < times.size(); ++i) EXPECT_GE(times[i] - times[i - 1], 10000);
}

TEST_F(RetryTest, ACancellationEndsTheWaitForItsTurn) {
  tarvex_box_retry_t retry{};
  tarvex_i_box_retry_state_create("u", 16, &retry);
  int holds[2];
  ASSERT_EQ(pipe(holds), 0);
  const pid_t holder = fork();
  if (holder == 0) {
    const bool locked = tarvex_i_box_retry_state_lock(&retry, true) == TARVEX_SUCCESS;
    _exit(locked && write(holds[1], "x", 1) == 1 ? pause() : 1);
  }
  char byte = 0;
  ASSERT_EQ(read(holds[0], &byte, 1), 1);
  tarvex_cancel_t cancel = nullptr;
  ASSERT_EQ(tarvex_cancel_init(&cancel), 0);
  std::jthread waiter([&] {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);  // as a session's threads may have it
    tarvex_cancel_bind(cancel);
    for (int i = 0; i < 2; ++i) tarvex_i_box_retry_delay(0, &retry);  // what is cancelled begins no other wait
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  tarvex_cancel_request(cancel);
  waiter.join();  // for ever, where the lock must come first
  EXPECT_EQ(retry.shared->last.tv_sec, 0);
  tarvex_cancel_destroy(&cancel);
  kill(holder, SIGKILL);
  waitpid(holder, nullptr, 0);
  for (const int end : holds) close(end);
  tarvex_i_box_retry_state_destroy(&retry);
}

TEST_F(RetryTest, KeepsAStateFileForUploads) {
  box_script.real_time = true;
  in_processes(8, [] {  // one makes the file, the others wait for it
    tarvex_box_upload_state_t state{};
    tarvex_i_box_upload_state_create("name", &state);
    if (state.fd == -1) _exit(1);
    tarvex_i_box_upload_state_destroy(&state);
  });
  EXPECT_EQ(std::filesystem::file_size(home / ".tarvex/box-u/name"), 4440u);
  tarvex_box_upload_state_t state{};
  tarvex_i_box_upload_state_create("name", &state);
  state.shared->num_parts = 7;
  ASSERT_EQ(tarvex_i_box_upload_state_lock(&state, true), TARVEX_SUCCESS);
  in_processes(1, [] {  // which finds the file locked, and maps what is in it all the same
    tarvex_box_upload_state_t other{};
    tarvex_i_box_upload_state_create("name", &other);
    const std::string refused = text_of(tarvex_i_box_upload_state_lock(&other, false));
    if (other.shared->num_parts != 7 || !refused.starts_with("System error in fnctl: ")) _exit(1);
  });
  ASSERT_EQ(tarvex_i_box_upload_state_unlock(&state), TARVEX_SUCCESS);
  tarvex_i_box_upload_state_destroy(&state);
  std::filesystem::remove_all(home / ".tarvex");
  tarvex_i_box_upload_state_create("name", &state);
  EXPECT_TRUE(state.is && state.fd == -1 && state.shared != nullptr);
  tarvex_i_box_upload_state_destroy(&state);
  EXPECT_EQ(state.shared, nullptr);
}

}  // namespace
