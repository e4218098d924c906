#include "base/log.h"

#include <gtest/gtest.h>

#include <string>

namespace tarvex::server {
namespace {

TEST(Log, WritesOneLineForEachCallFromItsLevelOn) {
  log_start(log_level::warning);
  testing::internal::CaptureStderr();
  log_info("not shown");
  log_warning("name {} {}% %s", "a\r\nFORGED \x7f", 5);
  const std::string written = testing::internal::GetCapturedStderr();
  log_start(log_level::info);
  EXPECT_NE(written.find("Z warning ["), std::string::npos) << written;
  EXPECT_TRUE(written.ends_with("] name a\\x0d\\x0aFORGED \\x7f 5% %s\n")) << written;
  EXPECT_EQ(written.find('\n'), written.size() - 1);
}

}  // namespace
}  // namespace tarvex::server
