#include "ftp/file_ranges.h"

#include <gtest/gtest.h>

namespace tarvex::server {
namespace {

TEST(FileRanges, ArgumentsOfRestAreRead) {
  const std::pair<const char*, const char*> rows[] = {
      {"0", ""},
      {"5", "0-5"},
      {"9223372036854775807", "0-9223372036854775807"},
      {"0-100,200-300", "0-100,200-300"},
      {"200-300,0-100", "0-100,200-300"},
      {"0-100,100-200", "0-200"},
      {"0-100,50-200,60-70", "0-200"},
      {"7-7,1-2", "1-2"},
      {"9223372036854775808", "none"},
      {"0-9223372036854775808", "none"},
      {"5-4", "none"},
      {"-1", "none"},
      {"-1-4", "none"},
      {"1-", "none"},
      {"1-2,", "none"},
      {"1-2,,3-4", "none"},
      {"1-2-3", "none"},
      {"1-2 3-4", "none"},
      {"1-2,3", "none"},
      {"", "none"},
      {"0x1", "none"},
  };
  for (const auto& [text, expected] : rows) {
    const auto ranges = file_ranges_parse(text);
    EXPECT_EQ(ranges ? file_ranges_format(*ranges) : "none", expected) << text;
  }
}

TEST(FileRanges, WhatIsMissingIsWhatIsNotHeld) {
  const struct {
    const char* held;
    file_range whole;
    const char* missing;
  } rows[] = {
      {"0", {0, 10}, "0-10"},           {"3", {0, 10}, "3-10"},           {"10", {0, 10}, ""},
      {"0-2,4-6", {0, 10}, "2-4,6-10"}, {"2-4,8-10", {0, 10}, "0-2,4-8"}, {"2-4,8-12", {3, 10}, "4-8"},
      {"0-4,20-30", {5, 10}, "5-10"},   {"20-30", {0, 10}, "0-10"},       {"1-2", {4, 4}, ""},
  };
  for (const auto& row : rows) {
    const file_ranges missing = file_ranges_missing(file_ranges_parse(row.held).value(), row.whole);
    EXPECT_EQ(file_ranges_format(missing), row.missing) << row.held;
  }
}

}  // namespace
}  // namespace tarvex::server
