#include "config/account_setting.h"

#include <gtest/gtest.h>

namespace tarvex::server {
namespace {

TEST(AccountSetting, IsReadByTheRulesOfTheFile) {
  struct row {
    const char* text;
    const char* key;
    const char* value;  ///< as the file has it; null: a mistake
    const char* mistake;
  };
  const row rows[] = {
      {"root=/Projects/X y", "root", "\"/Projects/X y\"", ""},
      {"root=Projects", "", nullptr, "absolute path"},
      {"root=/a/../b", "", nullptr, "without \"..\""},
      {"root=/a\nb", "", nullptr, "absolute path"},
      {"root=/\xff", "", nullptr, "root: "},
      {"permissions=read-only", "permissions", "\"read-only\"", ""},
      {"permissions=all", "", nullptr, "\"full\", \"read-only\" or \"upload-only\", found the text \"all\""},
      {"allow=192.0.2.0/24, 2001:db8::1", "allow", "[\"192.0.2.0/24\", \"2001:db8::1\"]", ""},
      {"allow=192.0.2.1/24", "", nullptr, "bits set behind its prefix"},
      {"allow=here", "", nullptr, "such as 192.0.2.0/24"},
      {"allow= , ", "", nullptr, "such as 192.0.2.0/24"},
      {"expires=2028-02-29", "expires", "2028-02-29", ""},
      {"expires=2027-02-29", "", nullptr, "a date without quotes such as 2027-01-31"},
      {"expires=2027-01-31T00:00:00", "", nullptr, "a date"},
      {"disabled=true", "disabled", "true", ""},
      {"disabled=yes", "", nullptr, "true or false, found the text \"yes\""},
      {"max_sessions=100000", "max_sessions", "100000", ""},
      {"max_sessions=0", "", nullptr, "from 1 to 100000, found 0"},
      {"max_sessions=4\n[x]", "", nullptr, "a whole number"},
      {"max_upload=9223372036854775807", "max_upload", "9223372036854775807", ""},
      {"max_upload=9223372036854775808", "", nullptr, "a whole number"},
      {"max_upload=1.5", "", nullptr, "a whole number"},
      {"password=x", "", nullptr, "there are root, permissions, allow, expires"},
      {"alow=192.0.2.1", "", nullptr, "did you mean \"allow\"?"},
      {"root", "", nullptr, "KEY=VALUE"},
      {"=x", "", nullptr, "unknown key"},
  };
  for (const row& row : rows) {
    toml_setting read{"untouched", std::nullopt};
    const std::string error = account_setting_parse(row.text, read);
    if (row.value == nullptr) {
      EXPECT_NE(error.find(row.mistake), std::string::npos) << row.text << ": " << error;
      EXPECT_FALSE(error.empty()) << row.text;
      EXPECT_EQ(read.key, "untouched");
      continue;
    }
    EXPECT_EQ(error, "") << row.text;
    EXPECT_EQ(read.key, row.key);
    ASSERT_TRUE(read.value) << row.text;
    EXPECT_EQ(toml_value_text(*read.value), row.value);
  }
  toml_setting removal{"", "x"};
  EXPECT_EQ(account_setting_parse("expires=", removal), "");
  EXPECT_EQ(removal.key, "expires");
  EXPECT_FALSE(removal.value);
}

}  // namespace
}  // namespace tarvex::server
