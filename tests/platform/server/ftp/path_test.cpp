#include "ftp/path.h"

#include <gtest/gtest.h>

namespace tarvex::server {
namespace {

TEST(Path, IsAbsoluteAndNormalAndNeverLeavesTheRoot) {
  struct row {
    const char* directory;
    std::string path;
    std::optional<std::string> normal;
  };
  const std::string long_name(4095, 'x');
  const row rows[] = {
      {"/", "", "/"},
      {"/a/b", "", "/a/b"},
      {"/a", "b//c/", "/a/b/c"},
      {"/a", "/b/./c/.", "/b/c"},
      {"/a/b", "..", "/a"},
      {"/a", "../../../etc", "/etc"},
      {"/", "a/../../..", "/"},
      {"/a", "...", "/a/..."},
      {"/a", ".. /b", "/a/.. /b"},
      {"/a", "%2e%2e", "/a/%2e%2e"},
      {"/a", "b\\..\\c", "/a/b\\..\\c"},
      {"/", long_name, "/" + long_name},
      {"/a", long_name, std::nullopt},
      {"/", std::string(70000, 'x'), std::nullopt},
      {"/", std::string("a\0b", 3), std::nullopt},
      {"/", "a\rb", std::nullopt},
      {"/", "a\nb", std::nullopt},
  };
  for (const row& row : rows) {
    EXPECT_EQ(path_normalise(row.directory, row.path), row.normal) << row.directory << " " << row.path.substr(0, 40);
  }
}

TEST(Path, QuotesAndBaseNames) {
  EXPECT_EQ(path_quoted("/a \"b\""), "\"/a \"\"b\"\"\"");
  EXPECT_EQ(path_base_name("/"), "/");
  EXPECT_EQ(path_base_name("/a/b c"), "b c");
}

}  // namespace
}  // namespace tarvex::server
