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
      {"[a]\ncredential = 'c'\n", 1, "so is certificates"},
      {"[a]\ncertificates = 'x'\ncredential = 'c'\n", 2, "expected a list"},
      {"[a]\ncertificates = []\ncredential = 'c'\n", 2, "at least one"},
      {"[a]\ncertificates = [\n5]\ncredential = 'c'\n", 3, "expected a text"},
      {"[a]\ncertificates = ['subject:']\ncredential = 'c'\n", 2, "\"sha256:\""},
      {"[a]\ncertificates = ['sha256:AB']\ncredential = 'c'\n", 2, "lower-case hex"},
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

TEST(Accounts, CertificatesLogInByAnyOfTheirNames) {
  const temporary_folder folder;
  const std::string digest = "sha256:" + std::string(64, 'a');
  const std::string file = folder.write("a.toml", "[bob]\ncertificates = ['subject:CN=bob', '" + digest +
                                                      "']\ncredential = 'c'\n[eve]\npassword = '" +
                                                      hash_of("x", "$1$abc") + "'\ncredential = 'c'\n");
  account_map read;
  ASSERT_TRUE(accounts_load(file, read).empty());
  const struct {
    const char* name;
    std::vector<std::string> shown;
    bool accepted;
  } rows[] = {
      {"bob", {digest, "subject:CN=other"}, true},
      {"bob", {"sha256:b", "subject:CN=bob"}, true},
      {"bob", {"subject:CN=bob,O=more"}, false},
      {"bob", {}, false},
      {"eve", {digest, "subject:CN=bob"}, false},
      {"eve", {}, false},
      {"nobody", {digest}, false},
  };
  for (const auto& row : rows)
    EXPECT_EQ(accounts_with_certificate(read, row.name, row.shown) != nullptr, row.accepted) << row.name;
  for (const char* password : {"", "x"}) EXPECT_EQ(accounts_authenticate(read, "bob", password), nullptr);
  EXPECT_NE(accounts_authenticate(read, "eve", "x"), nullptr);
}

}  // namespace
}  // namespace tarvex::server
