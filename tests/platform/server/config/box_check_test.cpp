#include "config/box_check.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

namespace tarvex::server {
namespace {

/// Ends with 0 when the warning names the directory below `home`.
[[noreturn]] void warn_as(uid_t user, const std::string& home) {
  if (setuid(user) != 0) std::exit(2);
  const std::string warning = box_pacing_warning(configuration{});
  std::exit(warning.find(home + "/.tarvex cannot be used") != std::string::npos ? 0 : 1);
}

TEST(BoxCheck, PacingByNobodyIsWarnedOf) {
  const passwd* const nobody = getpwnam("nobody");
  struct stat status = {};
  if (geteuid() != 0 || nobody == nullptr || stat(nobody->pw_dir, &status) == 0)
    GTEST_SKIP() << "needs a user without a home directory, and the right to become it";
  EXPECT_EXIT(warn_as(nobody->pw_uid, nobody->pw_dir), testing::ExitedWithCode(0), "");
  configuration other;
  other.storage_dsi = "fake";
  EXPECT_EQ(box_pacing_warning(other), "");
}

}  // namespace
}  // namespace tarvex::server
