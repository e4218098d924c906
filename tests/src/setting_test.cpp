#include "upload_fixture.h"

#include <dlfcn.h>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;

namespace {

class SettingTest : public PluginTest {
 protected:
  /// What the plug-in exports under a name, as a server finds it.
  static int exported(const std::string& name) {
    const auto* const found = static_cast<const int*>(dlsym(RTLD_DEFAULT, ("tarvex_i_box_" + name).c_str()));
    EXPECT_NE(found, nullptr) << name;
    return found != nullptr ? *found : -1;
  }
  std::vector<std::string> list_root() {
    EXPECT_EQ(stat_path("/", false), "");
    return framework.batches.empty() ? std::vector<std::string>{} : framework.batches.back();
  }
};

TEST_F(SettingTest, ExportsDefaultAndRangeByName) {
  const struct {
    const char* name;
    int value, least, most;
  } rows[] = {
      {"api_per_second", 16, 1, 1000000},
      {"upload_per_second", 4, 1, 1000000},
      {"max_delay", 25, 0, 3600},
      {"max_retries", 3, 0, 100},
      {"progress_timeout_ms", 30000, 1, 3600000},
      {"chunked_minimum", 52428800, 0, 2147483647},
      {"commit_attempts", 5, 1, 1000},
      {"cksm_restart", 0, 0, 1},
      {"abort_sessions", 0, 0, 1},
      {"abort_uploads", 0, 0, 1},
      {"replace_as_version", 0, 0, 1},
      {"page_limit", 300, 1, 1000},
      {"empty_marker_ends", 0, 0, 1},
      {"web_links", 1, 0, 1},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const std::string name = row.name;
    EXPECT_EQ(exported(name), row.value);
    EXPECT_EQ(exported(name + "_min"), row.least);
    EXPECT_EQ(exported(name + "_max"), row.most);
  }
}

TEST_F(SettingTest, AsksForPagesOfTheLimit) {
  login();
  for (const int limit : {1, 300, 1000}) {
    const SettingScope scope(tarvex_i_box_page_limit, limit);
    box_script.expect({code(200, page_json({}, "\"m\"")), code(200, page_json({}))});
    list_root();
    const auto lines = box_script.take_lines();
    ASSERT_THAT(lines, SizeIs(2));
    for (const auto& line : lines) EXPECT_TRUE(line.ends_with("&limit=" + std::to_string(limit))) << line;
  }
}

TEST_F(SettingTest, EndsAListingAtAnEmptyMarker) {
  login();
  const struct {
    int setting;
    const char* marker;
    size_t requests;
  } rows[] = {{0, "\"\"", 2}, {1, "\"\"", 1}, {1, "\"m\"", 2}, {1, "null", 1}};
  for (const auto& row : rows) {
    SCOPED_TRACE(std::to_string(row.setting) + row.marker);
    const SettingScope scope(tarvex_i_box_empty_marker_ends, row.setting);
    box_script.expect({code(200, page_json({item_json("file", "1", "a")}, row.marker))});
    if (row.requests == 2) box_script.expect({code(200, page_json({}))});
    EXPECT_THAT(list_root(), ElementsAre(".", "a"));
    EXPECT_THAT(box_script.take_lines(), SizeIs(row.requests));
  }
}

TEST_F(SettingTest, PassesOverWebLinks) {
  const std::vector<std::string> items = {item_json("web_link", "7", "link"), item_json("file", "2", "twin"),
                                          item_json("web_link", "8", "twin")};
  // A link without a name is as little in the way as any other.
  const std::string nameless = R"({"type":"web_link","id":"9"})";
  for (const auto& [setting, twin, link] : {std::tuple{1, "8", ""}, {0, "2", "PATH_NOT_FOUND"}}) {
    SCOPED_TRACE(setting);
    const SettingScope scope(tarvex_i_box_web_links, setting);
    next();
    if (session != nullptr) tarvex_i_box_destroy(session);
    login(items);
    EXPECT_THAT(stat_path("/link", true), testing::StartsWith(link));
    EXPECT_STREQ(cached("/twin")->id, twin);
    box_script.expect({code(200, page_json({items[0], item_json("folder", "4", "d"), items[1]}))});
    EXPECT_THAT(list_root(), ElementsAre(".", "d", "twin"));
    box_script.expect({code(200, page_json({nameless, items[1]}))});
    EXPECT_THAT(stat_path("/", false), HasSubstr(setting == 0 ? "" : "Failed info_parse!"));
    EXPECT_EQ(framework.error.empty(), setting == 0);
  }
}

}  // namespace
