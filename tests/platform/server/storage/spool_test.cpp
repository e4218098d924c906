#include "storage/spool.h"

#include "storage/disposal.h"
#include "storage/spool_budget.h"
#include "support/temporary_folder.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <future>
#include <memory>

namespace tarvex::server {
namespace {

std::span<const std::byte> bytes_of(std::string_view text) {
  return std::as_bytes(std::span(text));
}

std::string read_text(const spool& held, std::uint64_t offset, std::size_t length) {
  std::string text(length, '?');
  std::size_t got = 0;
  EXPECT_EQ(held.read(offset, std::as_writable_bytes(std::span(text)), got), 0);
  return text.substr(0, got);
}

TEST(Spool, KeepsBytesInMemoryUpToTheThresholdAndThenInAFileWithoutName) {
  const temporary_folder folder;
  spool held({.memory_bytes = 8, .limit_bytes = 0, .directory = folder.path()});
  ASSERT_EQ(held.append(bytes_of("12345678")), 0);
  EXPECT_TRUE(held.in_memory());
  EXPECT_EQ(read_text(held, 2, 100), "345678");
  ASSERT_EQ(held.append(bytes_of("9")), 0);
  ASSERT_EQ(held.append(bytes_of("abc")), 0);
  EXPECT_FALSE(held.in_memory());
  EXPECT_TRUE(std::filesystem::is_empty(folder.path()));

  const spool moved(std::move(held));
  EXPECT_EQ(moved.size(), 12U);
  EXPECT_EQ(read_text(moved, 0, 12), "123456789abc");
  EXPECT_EQ(read_text(moved, 7, 3), "89a");
  EXPECT_EQ(read_text(moved, 12, 1), "");
  EXPECT_EQ(read_text(moved, ~0ULL, 1), "");
}

TEST(Spool, RefusesBytesBeyondItsLimitAndKeepsWhatItHas) {
  spool held({.memory_bytes = 4, .limit_bytes = 5, .directory = "/nonexistent"});
  ASSERT_EQ(held.append(bytes_of("1234")), 0);
  EXPECT_EQ(held.append(bytes_of("5")), ENOENT);
  EXPECT_EQ(held.append(bytes_of("56")), EFBIG);
  EXPECT_EQ(read_text(held, 0, 9), "1234");
}

TEST(Spool, ReportsWhatTheDiskRefuses) {
  const temporary_folder folder;
  spool small({.memory_bytes = 0, .limit_bytes = 0, .directory = folder.path()});
  rlimit before = {};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
  const auto handler = std::signal(SIGXFSZ, SIG_IGN);
  const rlimit tight = {6, before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &tight), 0);
  const int first = small.append(bytes_of("1234"));
  const int second = small.append(bytes_of("5678"));  // two bytes fit, which must not count
  setrlimit(RLIMIT_FSIZE, &before);
  std::signal(SIGXFSZ, handler);
  EXPECT_EQ(first, 0);
  EXPECT_EQ(second, EFBIG);
  EXPECT_EQ(small.size(), 4U);
  EXPECT_EQ(small.append(bytes_of("abcd")), 0);
  EXPECT_EQ(read_text(small, 0, 9), "1234abcd");
}

/// Memory is taken in pieces of 1 MiB.
TEST(Spool, AllSessionsSpoolsHoldNoMoreTogetherThanTheyMay) {
  constexpr std::size_t MIB = 1 << 20;
  const temporary_folder folder;
  const std::string bytes(2 * MIB, 'x');
  const auto budget = std::make_unique<spool_budget>();
  budget->memory_limit_bytes = 2 * MIB;
  budget->disk_limit_bytes = 3 * MIB;
  const auto make = [&](std::size_t share) {
    return std::make_unique<spool>(
        spool_options{.memory_bytes = 10 * MIB, .directory = folder.path(), .budget = budget.get(), .share = share});
  };
  const auto held = [&](std::size_t share) {
    return std::pair(budget->shares[share].memory_bytes / MIB, budget->shares[share].disk_bytes / MIB);
  };
  using pair = std::pair<std::uint64_t, std::uint64_t>;
  auto first = make(1), second = make(2), third = make(3);
  ASSERT_EQ(first->append(bytes_of(bytes)), 0);
  EXPECT_TRUE(first->in_memory());
  ASSERT_EQ(second->append(bytes_of(bytes)), 0);
  EXPECT_FALSE(second->in_memory()) << "the memory is taken";
  EXPECT_EQ(third->append(bytes_of(bytes)), EDQUOT);
  EXPECT_EQ(third->size(), 0U);
  EXPECT_EQ(first->append(bytes_of("x")), EDQUOT) << "what it has would have to go to the disk as well";
  EXPECT_EQ(read_text(*first, 2 * MIB - 1, 9), "x");
  EXPECT_EQ(held(1), pair(2, 0));
  EXPECT_EQ(held(2), pair(0, 2));

  auto moved = std::make_unique<spool>(std::move(*first));
  first.reset();
  EXPECT_EQ(held(1), pair(2, 0));
  second.reset();
  ASSERT_EQ(moved->append(bytes_of("x")), 0);
  EXPECT_EQ(budget->total.memory_bytes, 0U);
  EXPECT_EQ(budget->total.disk_bytes, 2 * MIB + 1);
  EXPECT_EQ(make(3)->append(bytes_of(bytes)), 0);
  EXPECT_EQ(budget->total.memory_bytes, 0U);

  ASSERT_TRUE(budget_take(budget->total.disk_bytes, budget->shares[4].disk_bytes, 0, 5));  // of a session that dies
  ASSERT_TRUE(budget_take(budget->total.memory_bytes, budget->shares[4].memory_bytes, 5, 5));
  EXPECT_FALSE(budget_take(budget->total.memory_bytes, budget->shares[4].memory_bytes, 5, ~0ULL));
  budget_clear(*budget, 4);
  EXPECT_EQ(held(4), pair(0, 0));
  EXPECT_EQ(budget->total.memory_bytes, 0U);
  EXPECT_EQ(budget->total.disk_bytes, 2 * MIB + 1);
}

/// What could not be written is not held.
TEST(Spool, FailuresTakeNothingOfTheBudget) {
  const auto budget = std::make_unique<spool_budget>();
  spool held({.memory_bytes = 4, .directory = "/nonexistent", .budget = budget.get()});
  ASSERT_EQ(held.append(bytes_of("1234")), 0);
  for (int i = 0; i < 2; ++i) EXPECT_EQ(held.append(bytes_of("5")), ENOENT);
  EXPECT_EQ(budget->total.disk_bytes, 0U);
}

/// The disk takes its time to take space back.
TEST(Disposal, HoldsNobodyUpAndIsDoneInTheEnd) {
  std::promise<void> free;
  std::atomic<int> gone = 0;
  {
    disposal leavings;
    for (int i = 0; i < 2; ++i) {
      leavings.take(std::shared_ptr<void>(nullptr, [&gone, go = free.get_future().share()](void*) {
        go.wait();
        ++gone;
      }));
      if (i == 0) {
        EXPECT_EQ(gone, 0);
        free.set_value();
        free = {};
      }
    }
    EXPECT_LE(gone, 1);
    free.set_value();
  }
  EXPECT_EQ(gone, 2);
}

}  // namespace
}  // namespace tarvex::server
