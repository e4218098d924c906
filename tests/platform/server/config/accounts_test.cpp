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
    const auto [readable, read, mistakes] = accounts_load(file, false);
    ASSERT_TRUE(mistakes.empty()) << setting;
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

TEST(Accounts, EveryMistakeIsReportedWithItsLineAndClosesItsAccount) {
  struct row {
    const char* content;  ///< what stands below [a]
    unsigned line;
    const char* text;
  };
  const row rows[] = {
      {"password = 'plain'\ncredential = 'c'\n", 2, "no password hash"},
      {"password = ''\ncredential = 'c'\n", 2, "no password hash"},
      {"password = '!$6$a$b'\ncredential = 'c'\n", 2, "no password hash"},
      {"password = 5\ncredential = 'c'\n", 2, "expected a text in quotes, found 5"},
      {"password = '$6$a$b'\n\ncredential = ''\n", 4, "expected the path"},
      {"credential = 'c'\n", 1, "so is certificates"},
      {"certificates = 'x'\ncredential = 'c'\n", 2, "expected a list"},
      {"certificates = []\ncredential = 'c'\n", 2, "at least one"},
      {"certificates = [\n5]\ncredential = 'c'\n", 3, "expected a text"},
      {"certificates = ['subject:']\ncredential = 'c'\n", 2, "\"sha256:\""},
      {"certificates = ['sha256:AB']\ncredential = 'c'\n", 2, "lower-case hex"},
      {"password = '$6$a$b'\n", 1, "credential in [a] is missing"},
      {"password = '$6$a$b'\ncredentials = 'c'\ncredential = 'c'\n", 3, "did you mean \"credential\"?"},
      {"password = '$6$a$b'\ncredential = 'c'\nroot = '/a/../..'\n", 4, "without \"..\""},
      {"password = '$6$a$b'\ncredential = 'c'\nallow = []\n", 4, "at least one network"},
      {"password = '$6$a$b'\ncredential = 'c'\nallow = ['::/0',\n'192.0.2.1/8']\n", 5, "such as 192.0.2.0/24"},
      {"password = '$6$a$b'\ncredential = 'c'\nexpires = '2027-01-31'\n", 4, "a date without quotes"},
      {"password = '$6$a$b'\ncredential = 'c'\npermissions = 'Full'\n", 4, "\"full\", \"read-only\" or"},
      {"password = '$6$a$b'\ncredential = 'c'\n[a.x]\n", 4, "login name with a dot in quotes"},
  };
  const temporary_folder folder;
  for (const row& row : rows) {
    const std::string text = std::string("[a]\n") + row.content + "[b]\npassword = '$6$a$b'\ncredential = 'c'\n";
    const auto read = accounts_load(folder.write("a.toml", text), false);
    ASSERT_EQ(read.mistakes.size(), 1U) << row.content;
    EXPECT_EQ(read.mistakes[0].line, row.line) << row.content << read.mistakes[0].text;
    EXPECT_NE(read.mistakes[0].text.find(row.text), std::string::npos) << read.mistakes[0].text;
    EXPECT_TRUE(read.readable);
    EXPECT_EQ(read.accounts.at("a").name, "a");
    EXPECT_EQ(read.accounts.at("a").mistake, read.mistakes[0].text);
    EXPECT_EQ(read.accounts.at("b").mistake, "");
    EXPECT_EQ(accounts_authenticate(read.accounts, "a", "plain"), nullptr);
  }
}

TEST(Accounts, MistakesOfTheFileLeaveNoAccount) {
  const temporary_folder folder;
  const struct {
    const char* content;
    bool readable;
    unsigned line;
    const char* text;
  } rows[] = {
      {"\na = 'x'\n", true, 2, "expected a table"},
      {"[\"a\\n\"]\npassword = '$6$a$b'\ncredential = 'c'\n", true, 1, "control byte"},
      {"[a]\npassword = '$6$a$b'\npassword = 'x'\n", false, 3, ""},
      {"[a\n", false, 1, ""},
  };
  for (const auto& row : rows) {
    const auto read = accounts_load(folder.write("a.toml", row.content), true);
    ASSERT_EQ(read.mistakes.size(), 1U) << row.content;
    EXPECT_EQ(read.readable, row.readable) << row.content;
    EXPECT_EQ(read.mistakes[0].line, row.line) << row.content;
    EXPECT_NE(read.mistakes[0].text.find(row.text), std::string::npos) << read.mistakes[0].text;
    for (const auto& [name, who] : read.accounts) EXPECT_NE(who.mistake, "") << row.content;
  }
  EXPECT_EQ(accounts_load(folder.path("none"), true).mistakes.at(0).line, 0U);
  EXPECT_FALSE(accounts_load(folder.path("none"), true).readable);
}

TEST(Accounts, EveryKeyIsRead) {
  const temporary_folder folder;
  const auto read = accounts_load(folder.write("a.toml", R"([a]
password = '$6$a$b'
root = "//Projects/./X/"
permissions = "upload-only"
allow = ["192.0.2.0/24", "2001:db8::1"]
expires = 2028-02-29
disabled = true
max_sessions = 4
max_upload = 5368709120
[b]
password = '$6$a$b'
)"),
                                  true);
  ASSERT_TRUE(read.mistakes.empty()) << mistake_text(read.mistakes[0]);
  const account& a = read.accounts.at("a");
  EXPECT_EQ(a.root, "/Projects/X");
  EXPECT_EQ(account_permissions_text(a.permissions), "upload-only");
  ASSERT_EQ(a.allow.size(), 2U);
  EXPECT_EQ(client_network_text(a.allow[1]), "2001:db8::1/128");
  EXPECT_EQ(a.expires, std::chrono::year(2028) / 2 / 29);
  EXPECT_TRUE(a.disabled);
  EXPECT_EQ(a.max_sessions, 4U);
  EXPECT_EQ(a.max_upload, 5368709120U);
  EXPECT_EQ(a.credential, "");
  const account& b = read.accounts.at("b");
  EXPECT_EQ(b.root, "/");
  EXPECT_EQ(b.permissions, account_permissions::full);
  EXPECT_TRUE(accounts_credential_mistakes("a.toml", read.accounts).empty());
}

TEST(Accounts, CertificatesLogInByAnyOfTheirNames) {
  const temporary_folder folder;
  const std::string digest = "sha256:" + std::string(64, 'a');
  const std::string file = folder.write("a.toml", "[bob]\ncertificates = ['subject:CN=bob', '" + digest +
                                                      "']\ncredential = 'c'\n[eve]\npassword = '" +
                                                      hash_of("x", "$1$abc") + "'\ncredential = 'c'\n");
  const auto [readable, read, mistakes] = accounts_load(file, false);
  ASSERT_TRUE(mistakes.empty());
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
