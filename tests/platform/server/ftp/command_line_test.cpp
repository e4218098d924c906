#include "ftp/command_line.h"

#include <gtest/gtest.h>

namespace tarvex::server {
namespace {

TEST(CommandLine, ArgumentIsAllBehindTheFirstBlank) {
  struct row {
    const char* line;
    const char* verb;
    const char* argument;
    bool http;
  };
  const row rows[] = {
      {"", "", "", false},
      {"noop", "noop", "", false},
      {"RETR  a b ", "RETR", " a b ", false},
      {" RETR", "", "RETR", false},
      {"GET / HTTP/1.1", "GET", "/ HTTP/1.1", true},
      {"OPTIONS * HTTP/1.0", "OPTIONS", "* HTTP/1.0", true},
      {"get /", "get", "/", true},
      {"Host: x", "Host:", "x", true},
      {"RETR HTTP/1.1", "RETR", "HTTP/1.1", false},
  };
  for (const row& row : rows) {
    const command_line line = command_line_parse(row.line);
    EXPECT_EQ(line.verb, row.verb) << row.line;
    EXPECT_EQ(line.argument, row.argument) << row.line;
    EXPECT_EQ(command_line_is_http(line), row.http) << row.line;
  }
}

}  // namespace
}  // namespace tarvex::server
