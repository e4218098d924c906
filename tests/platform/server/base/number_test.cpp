#include "base/number.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace tarvex::server {
namespace {

TEST(Number, IsTheWholeTextOrNothing) {
  EXPECT_EQ(parse_number<std::int64_t>("9223372036854775807"), INT64_MAX);
  EXPECT_EQ(parse_number<std::int64_t>("-9223372036854775808"), INT64_MIN);
  EXPECT_EQ(parse_number<std::uint8_t>("007"), 7);
  EXPECT_EQ(parse_number<int>("755", 8), 0755);
  EXPECT_EQ(parse_number<unsigned>("fF", 16), 255U);
  for (const char* const none : {"", " 1", "1 ", "+1", "1.0", "0x1", "1e3", "-", "9223372036854775808"}) {
    EXPECT_FALSE(parse_number<std::int64_t>(none)) << none;
  }
  for (const char* const none : {"-1", "-0", "256"}) EXPECT_FALSE(parse_number<std::uint8_t>(none)) << none;
  EXPECT_FALSE(parse_number<int>("8", 8));
}

}  // namespace
}  // namespace tarvex::server
