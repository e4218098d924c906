#include "config/accounts.h"

#include "support/temporary_folder.h"

#include <crypt.h>
#include <gtest/gtest.h>

namespace tarvex::server {
namespace {

std::string hash_of(const char* password, const char* setting) {
  crypt_data data = {};
  const char* const hash = crypt_r(password, setting, &data);
  return hash == nullptr ? "" : hash;
}

TEST(Accounts, CheckPasswordsOfEveryScheme) {
  const temporary_folder folder;
  for (const char* setting : {"$y$j75$abcdefgh", "$6$rounds=1000$abc", "$5$rounds=1000$abc",
                              "$2b$04$abcdefghijklmnopqrstuu", "$1$abc", "ab"}) {
    const std::string hash = hash_of("geheim\xc3\xa9", setting);
    ASSERT_FALSE(hash.empty()) << setting;
    const std::string file =
        folder.write("a.toml", "[\"bob@x.org\"]\npassword = '" + hash + "'\ncredential = \"c/bob.json\"\n");
    account_map read;
    ASSERT_TRUE(accounts_load(file, read).empty()) << setting;
    const account* bob = accounts_authenticate(read, "bob@x.org", "geheim\xc3\xa9");
    ASSERT_NE(bob, nullptr) << setting;
    EXPECT_EQ(bob->credential, folder.path("c/bob.json"));
    for (const std::string wrong : {"", "geheim", hash.c_str()}) {
      EXPECT_EQ(accounts_authenticate(read, "bob@x.org", wrong), nullptr) << setting << " " << wrong;
    }
    EXPECT_EQ(accounts_authenticate(read, "bob@x.org", std::string("geheim\xc3\xa9\0x", 10)), nullptr);
    EXPECT_EQ(accounts_authenticate(read, "bob@x.orG", "geheim\xc3\xa9"), nullptr);
  }
  EXPECT_EQ(accounts_authenticate({}, "bob@x.org", ""), nullptr);
}

TEST(Accounts, EveryMistakeIsReportedWithItsLine) {
  struct row {
    const char* content;
    unsigned line;
    const char* text;
  };
  const row rows[] = {
      {"[a]\npassword = 'plain'\ncredential = 'c'\n", 2, "no password hash"},
      {"[a]\npassword = ''\ncredential = 'c'\n", 2, "no password hash"},
      {"[a]\npassword = '!$6$a$b'\ncredential = 'c'\n", 2, "no password hash"},
      {"[a]\npassword = 5\ncredential = 'c'\n", 2, "expected a text in quotes, found 5"},
      {"[a]\npassword = '$6$a$b'\n\ncredential = ''\n", 4, "expected the path"},
      {"[a]\npassword = '$6$a$b'\n", 1, "credential in [a] is missing"},
      {"[a]\npassword = '$6$a$b'\ncredentials = 'c'\ncredential = 'c'\n", 3, "did you mean \"credential\"?"},
      {"\na = 'x'\n", 2, "expected a table"},
      {"[\"a\\n\"]\npassword = '$6$a$b'\ncredential = 'c'\n", 1, "control byte"},
      {"[a]\npassword = '$6$a$b'\npassword = 'x'\n", 3, ""},
      {"[a\n", 1, ""},
  };
  const temporary_folder folder;
  for (const row& row : rows) {
    account_map ignored;
    const auto mistakes = accounts_load(folder.write("a.toml", row.content), ignored);
    ASSERT_EQ(mistakes.size(), 1U) << row.content;
    EXPECT_EQ(mistakes[0].line, row.line) << row.content << mistakes[0].text;
    EXPECT_NE(mistakes[0].text.find(row.text), std::string::npos) << mistakes[0].text;
  }
}

}  // namespace
}  // namespace tarvex::server
