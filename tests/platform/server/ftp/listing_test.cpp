#include "ftp/listing.h"

#include <gtest/gtest.h>

#include <limits>

namespace tarvex::server {
namespace {

constexpr std::time_t NOW = 1700000000;  // 2023-11-14T22:13:20Z
constexpr std::time_t HALF_A_YEAR = 15778476;
constexpr mode_t FOLDER = 040700;
constexpr mode_t FILE_MODE = 0100700;

std::string line(listing_form form, mode_t mode, tarvex_off_t size, std::time_t time, std::string_view name,
                 facts_mask facts = ALL_FACTS) {
  tarvex_gridftp_server_control_stat_t stat = {};
  stat.mode = mode;
  stat.nlink = 1;
  stat.size = size;
  stat.mtime = time;
  stat.dev = 0x1f;
  stat.ino = 0xffffffff;
  std::string out = "before";
  listing_append(form, stat, name, NOW, facts, out);
  EXPECT_TRUE(out.starts_with("before"));
  return out.substr(6);
}

TEST(Listing, LongLinesAreWhatClientsParse) {
  constexpr std::time_t LOWEST = std::numeric_limits<std::time_t>::min();
  constexpr std::time_t HIGHEST = std::numeric_limits<std::time_t>::max();
  struct row {
    mode_t mode;
    tarvex_off_t size;
    std::time_t time;
    std::string name;
    std::string expected;
  };
  const row rows[] = {
      {FOLDER, 0, NOW, "a", "drwx------   1 ftp      ftp                 0 Nov 14 22:13 a\r\n"},
      {0100644, 12, NOW - HALF_A_YEAR + 1, "b c", "-rw-r--r--   1 ftp      ftp                12 May 16 07:18 b c\r\n"},
      {FILE_MODE, 1, NOW - HALF_A_YEAR, "b", "-rwx------   1 ftp      ftp                 1 May 16  2023 b\r\n"},
      {FILE_MODE, 1, NOW + 1, "b", "-rwx------   1 ftp      ftp                 1 Nov 14  2023 b\r\n"},
      {FILE_MODE, -5, -1, "b", "-rwx------   1 ftp      ftp                 0 Dec 31  1969 b\r\n"},
      {FILE_MODE, std::numeric_limits<tarvex_off_t>::max(), LOWEST, "b",
       "-rwx------   1 ftp      ftp      9223372036854775807 Jan  1     1 b\r\n"},
      {FILE_MODE, 1, HIGHEST, "b", "-rwx------   1 ftp      ftp                 1 Dec 31  9999 b\r\n"},
      {FILE_MODE, 1, NOW, std::string("x\r\ny\0z\x1b\x7f\xc3\xa9\xc2\x9b", 12),
       "-rwx------   1 ftp      ftp                 1 Nov 14 22:13 x??y?z??\xc3\xa9?\r\n"},
      {FILE_MODE, 1, NOW, std::string(70000, 'n'),
       "-rwx------   1 ftp      ftp                 1 Nov 14 22:13 " + std::string(70000, 'n') + "\r\n"},
  };
  for (const row& row : rows) EXPECT_EQ(line(listing_form::list, row.mode, row.size, row.time, row.name), row.expected);
}

TEST(Listing, FactsAndBareNames) {
  EXPECT_EQ(line(listing_form::mlsd, FILE_MODE, 5, NOW, "a;b= c"),
            "type=file;size=5;modify=20231114221320;perm=rdfw;UNIX.mode=0700;unique=1fgffffffff; a;b= c\r\n");
  EXPECT_EQ(line(listing_form::mlsd, 040500, 5, -1, "d\n"),
            "type=dir;modify=19691231235959;perm=el;UNIX.mode=0500;unique=1fgffffffff; d?\r\n");
  EXPECT_TRUE(line(listing_form::mlsd, FOLDER, 0, NOW, ".").starts_with("type=cdir;"));
  EXPECT_EQ(line(listing_form::mlsd, FOLDER, 0, NOW, "d", facts_parse("unique;size;MODIFY;")),
            "modify=20231114221320;unique=1fgffffffff; d\r\n");
  EXPECT_EQ(line(listing_form::mlsd, FILE_MODE, 7, NOW, "a=b;c d", 0), " a=b;c d\r\n");
  EXPECT_EQ(line(listing_form::nlst, FOLDER, 0, NOW, "x\ry"), "x?y\r\n");
}

}  // namespace
}  // namespace tarvex::server
