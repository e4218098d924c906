#include "tarvex_common.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

constexpr char VARIABLE[] = "TARVEX_TEST_DEBUG";

tarvex_debug_handle_t init(const char* value) {
  value == nullptr ? unsetenv(VARIABLE) : setenv(VARIABLE, value, 1);
  tarvex_debug_handle_t handle = {1, 1, stdout, true, true};
  tarvex_debug_init(VARIABLE, "TRACE DEBUG INFO WARN  ERROR", &handle);
  return handle;
}

TEST(Debug, ReadsLevelsAndSwitches) {
  const struct {
    const char* value;
    unsigned levels, timestamp_levels;
    bool thread_ids;
  } rows[] = {
      {nullptr, 0, 0, false},       {"", 0, 0, false},
      {"0", 0, 0, false},           {"TRACE", 1, 0, false},
      {"warn|Error", 24, 0, false}, {"all", 31, 0, false},
      {"6", 6, 0, false},           {"0x1F,", 31, 0, false},
      {"255", 31, 0, false},        {"ALL,,t", 31, 31, false},
      {"ERROR,,it", 16, 31, true},  {"ALL,,it=WARN|ERROR", 31, 24, true},
      {"ALL,,t=0x3", 31, 3, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.value == nullptr ? "(unset)" : row.value);
    const auto handle = init(row.value);
    EXPECT_EQ(handle.levels, row.levels);
    EXPECT_EQ(handle.timestamp_levels, row.timestamp_levels);
    EXPECT_EQ(handle.thread_ids, row.thread_ids);
    EXPECT_EQ(handle.file, row.levels == 0 ? nullptr : stderr);
    EXPECT_FALSE(handle.using_file);
  }
}

TEST(Debug, UnreadableValuesDisableTheLogAndSaySoOnce) {
  for (const char* value : {"LOUD", "TRACE|", "|", ",file", "-1", "12x", "0x", "4294967296", "ALL,,x",
                            "ALL,,t=", "ALL,,ti,i", "ALL,,t=LOUD", "ALL,/nonexistent/directory/log", "ALL,/"}) {
    SCOPED_TRACE(value);
    testing::internal::CaptureStderr();
    for (int i = 0; i < 2; ++i) {
      const auto handle = init(value);
      EXPECT_EQ(handle.levels, 0u);
      EXPECT_EQ(handle.file, nullptr);
      EXPECT_FALSE(handle.using_file || handle.thread_ids);
    }
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_EQ(said.find(std::string(VARIABLE) + "=" + value + ": "), 0u) << said;
    EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1) << said;
  }
}

TEST(Debug, AppendsToAPrivateFileNamedAfterTheProcess) {
  const std::string pattern = testing::TempDir() + "debug-%p-%p.log";
  const std::string id = std::to_string(getpid());
  const std::string path = testing::TempDir() + "debug-" + id + "-" + id + ".log";
  for (const char* line : {"first\n", "second\n"}) {
    const auto handle = init(("ALL," + pattern).c_str());
    ASSERT_NE(handle.file, nullptr);
    EXPECT_TRUE(handle.using_file);
    std::fputs(line, handle.file);
    std::fclose(handle.file);
  }
  EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms(0600));
  std::ifstream file(path);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), "first\nsecond\n");
  std::filesystem::remove(path);
}

}  // namespace
