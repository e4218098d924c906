#include "ftp/facts.h"

#include <gtest/gtest.h>

namespace tarvex::server {
namespace {

TEST(Facts, ChosenByNameAndShownInOneOrder) {
  struct row {
    const char* names;
    const char* chosen;
    const char* starred;
  };
  const row rows[] = {
      {"", "", "type;size;modify;perm;UNIX.mode;unique;"},
      {"unique;Type;", "type;unique;", "type*;size;modify;perm;UNIX.mode;unique*;"},
      {"unix.MODE;size", "size;UNIX.mode;", "type;size*;modify;perm;UNIX.mode*;unique;"},
      {";;create;siz;", "", "type;size;modify;perm;UNIX.mode;unique;"},
  };
  for (const row& row : rows) {
    const facts_mask mask = facts_parse(row.names);
    EXPECT_EQ(facts_chosen(mask), row.chosen) << row.names;
    EXPECT_EQ(facts_starred(mask), row.starred) << row.names;
  }
  EXPECT_EQ(facts_parse(facts_chosen(ALL_FACTS)), 0x3fU);
}

}  // namespace
}  // namespace tarvex::server
