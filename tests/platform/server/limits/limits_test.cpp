#include "limits/account_seats.h"
#include "limits/address_group.h"
#include "limits/arrivals.h"
#include "limits/wrong_passwords.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace tarvex::server::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using time_point = std::chrono::steady_clock::time_point;

/// Counters as sessions have them: in memory that all processes share.
class SharedLimits : public ::testing::Test {
 protected:
  SharedLimits() {
    void* const memory =
        mmap(nullptr, sizeof(shared_limits), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    EXPECT_NE(memory, MAP_FAILED);
    limits_ = static_cast<shared_limits*>(memory);
  }
  ~SharedLimits() override { munmap(limits_, sizeof *limits_); }

  /// Runs `work` in so many processes at once, with their number. \return the sum of what they return.
  static int in_processes(int count, const std::function<int(int)>& work) {
    std::vector<pid_t> children;
    for (int i = 0; i < count; ++i) {
      const pid_t child = fork();
      if (child == 0) _exit(work(i));
      children.push_back(child);
    }
    int sum = 0;
    for (const pid_t child : children) {
      int status = 0;
      waitpid(child, &status, 0);
      EXPECT_TRUE(WIFEXITED(status));
      sum += WEXITSTATUS(status);
    }
    return sum;
  }

  shared_limits* limits_ = nullptr;
};

TEST(AddressGroup, IsAnIPv4AddressOrTheNetworkOfAnIPv6One) {
  struct row {
    const char *one, *other;
    bool same;
    const char* text;
  };
  const row rows[] = {
      {"192.0.2.1", "192.0.2.1", true, "192.0.2.1"},
      {"192.0.2.1", "192.0.2.2", false, "192.0.2.1"},
      {"192.0.2.1", "::ffff:192.0.2.1", true, "192.0.2.1"},
      {"127.0.0.1", "::1", false, "127.0.0.1"},
      {"2001:db8:1:2::1", "2001:db8:1:2:ffff::9", true, "2001:db8:1:2::/64"},
      {"2001:db8:1:2::1", "2001:db8:1:3::1", false, "2001:db8:1:2::/64"},
  };
  for (const row& row : rows) {
    const auto one = boost::asio::ip::make_address(row.one);
    EXPECT_EQ(address_group(one) == address_group(boost::asio::ip::make_address(row.other)), row.same) << row.other;
    EXPECT_EQ(address_group_text(one), row.text);
  }
}

TEST(Arrivals, AreCountedPerAddress) {
  using verdict = arrivals::verdict;
  arrivals counted;
  const arrivals::rules limits = {.sessions = 2, .connections = 4};
  struct row {
    seconds at;
    std::uint64_t group;
    verdict how;
    int leave;  ///< sessions of the group that end then
  };
  const row rows[] = {
      {seconds(0), 1, verdict::admitted, 0},          {seconds(1), 1, verdict::admitted, 0},
      {seconds(2), 1, verdict::too_many_sessions, 0}, {seconds(2), 2, verdict::admitted, 0},
      {seconds(3), 1, verdict::too_many_sessions, 2}, {seconds(4), 1, verdict::admitted, 1},
      {seconds(5), 1, verdict::admitted, 1},          {seconds(6), 1, verdict::too_often, 0},
      {seconds(59), 1, verdict::too_often, 0},        {seconds(60), 1, verdict::admitted, 0},
  };
  for (const row& row : rows) {
    EXPECT_EQ(counted.admit(row.group, limits, time_point(row.at)), row.how) << row.at.count();
    for (int i = 0; i < row.leave; ++i) counted.leave(row.group);
  }
  EXPECT_EQ(counted.admit(1, {}, time_point(seconds(61))), verdict::admitted) << "0 is no limit";
}

TEST(Arrivals, ThatCannotBeCountedAreRefusedAndOldOnesForgotten) {
  arrivals counted;
  const arrivals::rules limits = {.sessions = 1, .connections = 9};
  const time_point start{seconds(1000)};
  for (std::uint64_t group = 0; group < arrivals::GROUPS_MAX; ++group)
    ASSERT_EQ(counted.admit(group, limits, start), arrivals::verdict::admitted);
  for (std::uint64_t group = 1; group < arrivals::GROUPS_MAX; ++group) counted.leave(group);
  const std::uint64_t late = arrivals::GROUPS_MAX;
  EXPECT_EQ(counted.admit(late, limits, start + seconds(1)), arrivals::verdict::uncounted);
  EXPECT_EQ(counted.admit(late, limits, start + seconds(61)), arrivals::verdict::admitted);
  EXPECT_EQ(counted.groups(), 2U) << "one has a session still, one is new";
  EXPECT_EQ(counted.admit(0, limits, start + seconds(62)), arrivals::verdict::too_many_sessions);
}

TEST_F(SharedLimits, WrongPasswordsCountWithinTheirWindow) {
  const password_rules rules = {.count = 3, .window = seconds(10)};
  const auto at = [](int s) { return time_point(seconds(1000 + s)); };
  for (int i = 0; i < 3; ++i) {
    EXPECT_FALSE(wrong_passwords_used_up(*limits_, 7, rules, at(i)));
    EXPECT_TRUE(wrong_password_count(*limits_, 7, rules, at(i)));
  }
  EXPECT_TRUE(wrong_passwords_used_up(*limits_, 7, rules, at(9)));
  EXPECT_FALSE(wrong_passwords_used_up(*limits_, 8, rules, at(9))) << "another address";
  EXPECT_FALSE(wrong_passwords_used_up(*limits_, 7, {.count = 0, .window = seconds(10)}, at(9))) << "no limit";
  EXPECT_FALSE(wrong_passwords_used_up(*limits_, 7, rules, at(10))) << "the window is over";
  EXPECT_TRUE(wrong_password_count(*limits_, 7, rules, at(11)));
  EXPECT_FALSE(wrong_passwords_used_up(*limits_, 7, rules, at(12))) << "what is over counts no more";
}

TEST_F(SharedLimits, WrongPasswordsOfManyProcessesAreAllCounted) {
  constexpr unsigned PROCESSES = 8, EACH = 100;
  const password_rules rules = {.count = PROCESSES * EACH, .window = seconds(3600)};
  const time_point now{seconds(1000)};
  const auto guess = [&](unsigned times) {
    for (unsigned i = 0; i < times; ++i)
      if (!wrong_password_count(*limits_, 7, rules, now)) return 1;
    return 0;
  };
  EXPECT_EQ(in_processes(PROCESSES, [&](int number) { return guess(number == 0 ? EACH - 1 : EACH); }), 0);
  EXPECT_FALSE(wrong_passwords_used_up(*limits_, 7, rules, now));
  EXPECT_EQ(guess(1), 0);
  EXPECT_TRUE(wrong_passwords_used_up(*limits_, 7, rules, now));
}

TEST_F(SharedLimits, WrongPasswordsThatCannotBeCountedAreSaid) {
  const password_rules rules = {.count = 3, .window = seconds(10)};
  std::uint64_t addresses = 0;
  // Long before the whole table is full some address finds no slot near its own.
  while (addresses < shared_limits::SLOTS &&
         wrong_password_count(*limits_, addresses, rules, time_point(seconds(1000))))
    ++addresses;
  EXPECT_GT(addresses, shared_limits::SLOTS / 2) << "the room is used";
  EXPECT_LT(addresses, shared_limits::SLOTS);
  EXPECT_TRUE(wrong_password_count(*limits_, addresses, rules, time_point(seconds(1011)))) << "others are over";
}

TEST_F(SharedLimits, AccountsHaveSoManySeatsAndNoMore) {
  constexpr unsigned LIMIT = 3;
  const auto take = [this](std::size_t share, const char* account) {
    return account_seat_take(*limits_, share, account, LIMIT);
  };
  for (std::size_t share = 0; share < LIMIT; ++share) EXPECT_EQ(take(share, "alice"), seat_answer::taken);
  EXPECT_EQ(take(5, "alice"), seat_answer::limit_reached);
  EXPECT_EQ(take(6, "bob"), seat_answer::taken);
  account_seat_give_back(*limits_, 5);
  EXPECT_EQ(take(5, "alice"), seat_answer::limit_reached) << "who was refused has nothing to give back";
  account_seat_give_back(*limits_, 1);
  EXPECT_EQ(take(5, "alice"), seat_answer::taken);
  EXPECT_EQ(take(6, "alice"), seat_answer::limit_reached);
  for (std::size_t share = 7; share < 9; ++share) EXPECT_EQ(take(share, "bob"), seat_answer::taken) << "gave its up";
}

TEST_F(SharedLimits, SeatsAreHandedOutExactlyAmongManyProcesses) {
  constexpr int PROCESSES = 8;
  constexpr unsigned LIMIT = 5;
  for (int round = 0; round < 20; ++round) {
    // Some die with their seat, as a session that crashes does; the others give it back and take it again.
    const int refused = in_processes(PROCESSES, [this](int number) {
      const auto share = static_cast<std::size_t>(number);
      for (int i = 0; i < 200; ++i) {
        if (account_seat_take(*limits_, share, "alice", PROCESSES) != seat_answer::taken) return 1;
        if (i < 199) account_seat_give_back(*limits_, share);
      }
      return 0;
    });
    EXPECT_EQ(refused, 0);
    EXPECT_EQ(account_seat_take(*limits_, PROCESSES, "alice", PROCESSES), seat_answer::limit_reached);
    for (std::size_t share = 0; share < PROCESSES; ++share) account_seat_give_back(*limits_, share);
    const int taken = in_processes(PROCESSES, [this](int number) {
      return account_seat_take(*limits_, static_cast<std::size_t>(number), "bob", LIMIT) == seat_answer::taken ? 1 : 0;
    });
    EXPECT_EQ(taken, static_cast<int>(LIMIT));
    for (std::size_t share = 0; share < PROCESSES; ++share) account_seat_give_back(*limits_, share);
  }
}

}  // namespace
}  // namespace tarvex::server::test
