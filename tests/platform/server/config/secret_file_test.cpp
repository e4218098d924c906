#include "config/secret_file.h"

#include "config/password_hash.h"
#include "support/temporary_folder.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

namespace tarvex::server {
namespace {

TEST(SecretFile, IsReadWithoutItsLinesEnd) {
  const temporary_folder folder;
  const struct {
    std::string content;
    std::string whole, first_line;
  } rows[] = {
      {"", "", ""},
      {"\n", "", ""},
      {"word", "word", "word"},
      {"word\r\n", "word\r", "word"},
      {"word\n\n", "word\n", "word"},
      {"\na b \nc", "\na b \nc", ""},
      {std::string("a\0b\n", 4), std::string("a\0b", 3), std::string("a\0b", 3)},
  };
  for (const auto& row : rows) {
    const std::string path = folder.write("s", row.content);
    chmod(path.c_str(), 0600);
    secret read;
    EXPECT_FALSE(secret_file_read(path, secret_privacy::owner_only, secret_extent::whole, read));
    EXPECT_EQ(read.text(), row.whole);
    EXPECT_FALSE(secret_file_read(path, secret_privacy::owner_only, secret_extent::first_line, read));
    EXPECT_EQ(read.text(), row.first_line);
  }
}

TEST(SecretFile, OthersMayNotWriteIt) {
  const temporary_folder folder;
  const std::string path = folder.write("s", "word");
  for (const mode_t mode : {0400, 0600, 0700, 0440, 0420, 0604, 0602}) {
    chmod(path.c_str(), mode);
    secret read;
    const auto failure = secret_file_read(path, secret_privacy::owner_only, secret_extent::whole, read);
    EXPECT_EQ(failure.has_value(), (mode & 022U) != 0) << mode;
    EXPECT_EQ(read.text(), failure ? "" : "word");
    EXPECT_FALSE(secret_file_read(path, secret_privacy::anyone, secret_extent::whole, read));
  }
  secret read;
  EXPECT_EQ(secret_file_read(folder.path("none"), secret_privacy::anyone, secret_extent::whole, read)->error, ENOENT);
  ASSERT_EQ(mkfifo(folder.path("fifo").c_str(), 0600), 0);
  EXPECT_TRUE(secret_file_read(folder.path("fifo"), secret_privacy::owner_only, secret_extent::whole, read));
}

TEST(PasswordHash, MadeOfWhatClientsCanSend) {
  std::string first, second;
  ASSERT_EQ(password_hash_make(secret("geheim\xc3\xa9"), first), "");
  ASSERT_EQ(password_hash_make(secret("geheim\xc3\xa9"), second), "");
  EXPECT_TRUE(first.starts_with("$y$") && is_password_hash(first)) << first;
  EXPECT_NE(first, second) << "each has its own salt";
  EXPECT_TRUE(password_matches("geheim\xc3\xa9", first));
  EXPECT_FALSE(password_matches("geheim", first));
  for (const std::string& wrong : {std::string(), std::string("a\0b", 3), std::string("a\nb"), std::string(600, 'a')}) {
    EXPECT_NE(password_hash_make(secret(std::string(wrong)), first), "");
    EXPECT_NE(first, "") << "stays as it was";
  }
}

}  // namespace
}  // namespace tarvex::server
