#include "config/accounts_cache.h"

#include "support/temporary_folder.h"

#include <crypt.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>

namespace tarvex::server {
namespace {

std::string account_text(const std::string& name, const char* password) {
  crypt_data data = {};
  return "[" + name + "]\npassword = '" + crypt_r(password, "$5$rounds=1000$salt", &data) + "'\ncredential = 'c'\n";
}

/// Gives a file another content in its place, and a date that lies in the past, so that it does not look unsettled.
void rewrite(const std::string& path, const std::string& content, time_t age_s) {
  std::ofstream(path) << content;
  const timespec times[] = {{time(nullptr) - age_s, 0}, {time(nullptr) - age_s, 0}};
  utimensat(AT_FDCWD, path.c_str(), times, 0);
}

enum class verdict { accepted, refused, unavailable };

/// What a login is told.
verdict tell(accounts_cache& cache, const std::string& name, const std::string& password) {
  (void)cache.refresh();
  if (accounts_authenticate(*cache.accounts(), name, password) != nullptr) return verdict::accepted;
  return cache.readable() || cache.find(name) != nullptr ? verdict::refused : verdict::unavailable;
}

TEST(AccountsCache, FollowsTheFileAndOutlastsWhatIsHalfWritten) {
  const temporary_folder folder;
  const std::string file = folder.write("a.toml", "");
  const std::string alice = account_text("alice", "secret");
  const std::string bob = account_text("bob", "other");
  accounts_cache cache(file, false);
  EXPECT_EQ(tell(cache, "alice", "secret"), verdict::refused);
  struct row {
    const char* name;
    std::string content;
    mode_t mode;
    bool changed;
    verdict alice, bob, wrong;
  };
  constexpr auto ACCEPTED = verdict::accepted;
  constexpr auto REFUSED = verdict::refused;
  constexpr auto UNAVAILABLE = verdict::unavailable;
  const row rows[] = {
      {"one", alice, 0600, true, ACCEPTED, REFUSED, REFUSED},
      {"another added", alice + bob, 0600, true, ACCEPTED, ACCEPTED, REFUSED},
      {"written again", "#\n" + alice + bob, 0600, true, ACCEPTED, ACCEPTED, REFUSED},
      {"a mistake in one", "#\n" + alice + "disabled = 5\n" + bob, 0600, true, ACCEPTED, ACCEPTED, REFUSED},
      {"half-written", alice + bob.substr(0, 20), 0600, false, ACCEPTED, ACCEPTED, REFUSED},
      {"finished", bob, 0600, true, REFUSED, ACCEPTED, REFUSED},
      {"others may write", alice + bob, 0660, false, UNAVAILABLE, ACCEPTED, UNAVAILABLE},
      {"put right", alice + bob, 0600, true, ACCEPTED, ACCEPTED, REFUSED},
      {"same again", alice + bob + "\n", 0600, false, ACCEPTED, ACCEPTED, REFUSED},
      {"empty", "", 0600, true, REFUSED, REFUSED, REFUSED},
  };
  for (const row& row : rows) {
    rewrite(file, row.content, 100);
    chmod(file.c_str(), row.mode);
    EXPECT_EQ(cache.refresh(), row.changed) << row.name;
    EXPECT_EQ(tell(cache, "alice", "secret"), row.alice) << row.name;
    EXPECT_EQ(tell(cache, "bob", "other"), row.bob) << row.name;
    EXPECT_EQ(tell(cache, "alice", "other"), row.wrong) << row.name;
  }
  rewrite(file, alice, 100);
  (void)cache.refresh();
  std::filesystem::remove(file);
  EXPECT_EQ(tell(cache, "alice", "secret"), ACCEPTED);
  EXPECT_EQ(tell(cache, "bob", "other"), UNAVAILABLE);
  ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
  EXPECT_EQ(tell(cache, "alice", "secret"), ACCEPTED) << "and does not wait for a writer";
}

TEST(AccountsCache, LogsAMistakeOnce) {
  const temporary_folder folder;
  accounts_cache cache(folder.write("a.toml", "[alice"), false);
  testing::internal::CaptureStderr();
  for (int i = 0; i < 3; ++i) cache.refresh();
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_NE(log.find("a.toml:1: "), std::string::npos) << log;
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 2) << log;
}

}  // namespace
}  // namespace tarvex::server
