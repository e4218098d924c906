#include "storage/spool.h"

#include "support/temporary_folder.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cerrno>
#include <csignal>
#include <filesystem>

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

  spool moved(std::move(held));
  held = spool({.memory_bytes = 1, .limit_bytes = 0, .directory = folder.path()});
  EXPECT_EQ(held.size(), 0U);
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

}  // namespace
}  // namespace tarvex::server
