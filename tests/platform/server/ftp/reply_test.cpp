#include "ftp/reply.h"

#include <gtest/gtest.h>

namespace tarvex::server {
namespace {

using lines = std::vector<std::string>;

TEST(Reply, NoLineForgesAnother) {
  struct row {
    lines in;
    const char* reply;
  };
  const row rows[] = {
      {{}, "226 \r\n"},
      {{"a", "b"}, "226-a\r\n226-b\r\n226 End.\r\n"},
      {{"226 End.", ""}, "226-226 End.\r\n226-\r\n226 End.\r\n"},
      {{"a\r\n550 b"}, "226 a??550 b\r\n"},
      {{std::string("a\0b\x7f\x1b[2J", 8)}, "226 a?b??[2J\r\n"},
      {{"a\xc2\x85z\xc2\xa0\x85"}, "226 a?z\xc2\xa0\x85\r\n"},
      {{"iac \xff\xf4 \xc3\xa9"}, "226 iac \xff\xff\xf4 \xc3\xa9\r\n"},
  };
  for (const row& row : rows) EXPECT_EQ(reply_format(226, row.in), row.reply);
}

TEST(Reply, BlockKeepsItsLinesInside) {
  EXPECT_EQ(reply_block(211, "a\n", {"b", "211 c", "d\r\n\xff"}, "e"),
            "211-a?\r\n b\r\n 211 c\r\n d??\xff\xff\r\n211 e\r\n");
  EXPECT_EQ(reply_block(211, "a", {}, "e"), "211-a\r\n211 e\r\n");
}

}  // namespace
}  // namespace tarvex::server
