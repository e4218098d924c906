#include "config/toml_edit.h"

#include <gtest/gtest.h>

#include <span>

namespace tarvex::server {
namespace {

using settings = std::vector<toml_setting>;

constexpr std::chrono::year_month_day DAY{std::chrono::year(2027), std::chrono::month(1), std::chrono::day(31)};
const settings ROOT = {{"root", "/x"}};
const settings NO_ROOT = {{"root", std::nullopt}};
/// What becomes of a text is the table [a]'s being put or, without settings, removed.
constexpr const char* REFUSED = nullptr;

struct edit_row {
  const char* name;
  std::string before;
  std::optional<settings> put;
  const char* after;
};

void expect_edits(std::span<const edit_row> rows) {
  for (const edit_row& row : rows) {
    std::string text = row.before;
    const std::string error = row.put ? toml_put(text, "a", *row.put) : toml_remove(text, "a");
    EXPECT_EQ(error.empty(), row.after != REFUSED) << row.name << ": " << error;
    EXPECT_EQ(text, row.after != REFUSED ? row.after : row.before) << row.name;
  }
}

TEST(TomlEdit, ValuesOfEveryTypeAreWritten) {
  const edit_row rows[] = {
      {"a new table", "", settings{{"t", "q\"\\\n\x7f\xc3\xa9"}, {"n", std::int64_t{-5}}, {"none", std::nullopt}},
       "[a]\nt = \"q\\\"\\\\\\u000A\\u007F\xc3\xa9\"\nn = -5\n"},
      {"others", "[a]\n", settings{{"b c", true}, {"d", DAY}, {"l", std::vector<std::string>{"x", "y]"}}},
       "[a]\n\"b c\" = true\nd = 2027-01-31\nl = [\"x\", \"y]\"]\n"},
      {"no UTF-8", "[a]\n", settings{{"t", "\xff"}}, REFUSED},
      {"no settings", "x = 1", settings{}, "x = 1\n\n[a]\n"},
  };
  expect_edits(rows);
}

TEST(TomlEdit, KeysAreSetInPlace) {
  const edit_row rows[] = {
      {"a value, its comment stays", "# c\n[a] # d\n  root = '/y'   # e\nn = 1", ROOT,
       "# c\n[a] # d\n  root = \"/x\"   # e\nn = 1"},
      {"a list over lines", "[a]\nroot = [ # c\n '1', # ]\n ] # d\nn=1\n", ROOT, "[a]\nroot = \"/x\" # d\nn=1\n"},
      {"a text over lines", "[a]\nroot = '''\n[b]\nroot = 1''' # d\n", ROOT, "[a]\nroot = \"/x\" # d\n"},
      {"characters of several bytes",
       "[a]\nn = '\xc3\xa9\xf0\x9f\x98\x80'\n\"r\\u006fot\" = '\xf0\x9f\x98\x80' # \xc3\xa9\n", ROOT,
       "[a]\nn = '\xc3\xa9\xf0\x9f\x98\x80'\n\"r\\u006fot\" = \"/x\" # \xc3\xa9\n"},
      {"an inline table", "a = {root = '/y', n = [1, {z=2}] } # c\n", ROOT,
       "a = {root = \"/x\", n = [1, {z=2}] } # c\n"},
      {"a dotted key", "b.root = 1\na . root=2 # c\n", ROOT, "b.root = 1\na . root=\"/x\" # c\n"},
      {"line ends of the other kind", "[a]\r\nroot = 1 # c\r\n\r\n[b]\r\n", ROOT,
       "[a]\r\nroot = \"/x\" # c\r\n\r\n[b]\r\n"},
      {"new, behind the last", "[a]\n\tn = '''\n'''  # c\n# d\n\n[b]\n", ROOT,
       "[a]\n\tn = '''\n'''  # c\n\troot = \"/x\"\n# d\n\n[b]\n"},
      {"new, below the header", "[b]\n[ 'a' ] # c\n# d\n[c]\n", ROOT, "[b]\n[ 'a' ] # c\nroot = \"/x\"\n# d\n[c]\n"},
      {"new, not in the sub-table", "[a.s]\nx = 1\n[a]\ny = 1\n[[a.t]]\nz=1\n", ROOT,
       "[a.s]\nx = 1\n[a]\ny = 1\nroot = \"/x\"\n[[a.t]]\nz=1\n"},
      {"new, beside sub-tables alone", "[a.s]\nx = 1", ROOT, "[a.s]\nx = 1\n[a]\nroot = \"/x\"\n"},
      {"new in an inline table", "a = { n = 1 } # c", ROOT, "a = { n = 1, root = \"/x\" } # c"},
      {"new in an empty one", "a = {}\n", ROOT, "a = { root = \"/x\" }\n"},
      {"new, dotted", " a.s.t = 1 # c\na.n = [\n]\nb = 1\n", ROOT,
       " a.s.t = 1 # c\na.n = [\n]\na.root = \"/x\"\nb = 1\n"},
      {"new, no newline at the end", "[a]\r\nn = 1", ROOT, "[a]\r\nn = 1\r\nroot = \"/x\"\r\n"},
      {"behind a byte order mark", "\xef\xbb\xbf[a]\nroot = 1\n", ROOT, "\xef\xbb\xbf[a]\nroot = \"/x\"\n"},
      {"a table of its own", "[a.root]\nx = 1\n", ROOT, REFUSED},
      {"no table", "a = 1\n", ROOT, REFUSED},
      {"a list of tables", "[[a]]\nx = 1\n", ROOT, REFUSED},
      {"no TOML", "[a\n", ROOT, REFUSED},
  };
  expect_edits(rows);
}

TEST(TomlEdit, KeysAndTablesAreRemoved) {
  const edit_row rows[] = {
      {"a key with its comment", "[a]\n# c\nroot = [ # d\n1] # e\n# f\nn = 1\n", NO_ROOT, "[a]\n# c\n# f\nn = 1\n"},
      {"a key that is not there", "[a]\nn = 1", NO_ROOT, "[a]\nn = 1"},
      {"the first of an inline table", "a = { root = 1, n = 2 }", NO_ROOT, "a = { n = 2 }"},
      {"the last of one", "a = { n = 2, root = 1 }", NO_ROOT, "a = { n = 2 }"},
      {"the only one of one", "a = { root = 1 }\n", NO_ROOT, "a = {  }\n"},
      {"a dotted one", "a.n = 1\na.root = 2\n", NO_ROOT, "a.n = 1\n"},
      {"the table would go with it", "a.root = 2\n", NO_ROOT, REFUSED},
      {"table, comments inside and outside", "# c\n[a] # d\n# e\nn = 1\n# f\n\n# g\n[b]\n", std::nullopt,
       "# c\n\n# g\n[b]\n"},
      {"table, the next one's comment", "[a]\nn = 1\n# g\n[b]\n", std::nullopt, "# g\n[b]\n"},
      {"table between blank lines", "[b]\nx = 1\n\n[a]\nn = 1\n\n[c]\n", std::nullopt, "[b]\nx = 1\n\n[c]\n"},
      {"the last table", "[b]\nx = 1\n\n[a]\nn = 1", std::nullopt, "[b]\nx = 1\n"},
      {"sub-tables, scattered", "[a.s]\nx = 1\n# c\n[a]\n[b]\n[[a.t]]\nz=1\n[[a.t]]\nz=2\n[a.t.u]\nv = 1\n[c]\n",
       std::nullopt, "[b]\n[c]\n"},
      {"a sub-table's table above it", "[a.s.t]\n[b]\n[a.s]\nx = 1\n[a]\n[c]\n", std::nullopt, "[b]\n[c]\n"},
      {"dotted and inline", "a.n = 1\nb = 1\na.m.o = 2\nx = { a = 1 }\n[c]\n", std::nullopt,
       "b = 1\nx = { a = 1 }\n[c]\n"},
      {"one that is not there", "[b]\n", std::nullopt, "[b]\n"},
      {"its name in a text", "[b]\nx = '''\n[a]\n'''\n[a]\n", std::nullopt, "[b]\nx = '''\n[a]\n'''\n"},
  };
  expect_edits(rows);
}

TEST(TomlEdit, AddedAndRemovedLeavesNothing) {
  for (const std::string before : {"", "[b]\nx = 1\n", "[b]\r\nx = 1\r\n", "# c\n", "b.x = 1\n"}) {
    std::string text = before;
    EXPECT_EQ(toml_put(text, "a.b \"\n\xc3\xa9", {{"x", true}}), "");
    EXPECT_NE(text.find("[\"a.b \\\"\\u000A\xc3\xa9\"]"), std::string::npos) << text;
    EXPECT_EQ(toml_remove(text, "a.b \"\n\xc3\xa9"), "");
    EXPECT_EQ(text, before);
  }
}

}  // namespace
}  // namespace tarvex::server
