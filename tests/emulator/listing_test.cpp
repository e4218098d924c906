// Paging through folders, by markers and by offsets.
#include "box_process.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>

namespace emulator_test {
namespace {

class Listing : public testing::Test {
 protected:
  /// A page after a marker; alters the marker to that of the next one, "" at the end.
  [[nodiscard]] reply page(const std::string& folder, int limit, std::string& marker) const {
    // Markers are base64: of its alphabet "=" and "+" mean something in a query.
    for (auto at = marker.find_first_of("=+"); at != std::string::npos; at = marker.find_first_of("=+")) {
      marker.replace(at, 1, marker[at] == '=' ? "%3D" : "%2B");
    }
    const reply answer = box_.send("GET /2.0/folders/" + folder + "/items?fields=name&usemarker=true&marker=" + marker +
                                   "&limit=" + std::to_string(limit));
    EXPECT_EQ(answer.status, 200) << answer.body;
    marker = answer.at("next_marker");
    if (marker == "null") marker.clear();
    return answer;
  }

  [[nodiscard]] std::vector<std::string> names_of(const reply& answer) const {
    std::vector<std::string> names;
    const json_ptr whole = answer.json();
    const json_t* entries = json_object_get(whole.get(), "entries");
    for (std::size_t i = 0; i < json_array_size(entries); ++i) {
      names.emplace_back(json_string_value(json_object_get(json_array_get(entries, i), "name")));
    }
    return names;
  }

  [[nodiscard]] std::vector<std::string> all(const std::string& folder, int limit, std::size_t* pages = nullptr) const {
    std::vector<std::string> names;
    std::string marker;
    do {
      for (std::string& each : names_of(page(folder, limit, marker))) names.push_back(std::move(each));
      if (pages != nullptr) ++*pages;
    } while (!marker.empty());
    return names;
  }

  box_process box_;
};

TEST_F(Listing, EveryLimitGivesAllItemsOnceAndInOrder) {
  const std::string folder = box_.folder("0", "many");
  ASSERT_EQ(box_.send("POST /_emulator/fill", R"({"folder":")" + folder + R"(","count":2500,"bytes":10})").status, 204);
  const auto expected = all(folder, 1000);
  EXPECT_EQ(std::set(expected.begin(), expected.end()).size(), 2500U);
  EXPECT_TRUE(std::is_sorted(expected.begin(), expected.end()));
  // A limit above 1000 counts as 1000, and no empty page stands behind a full last one.
  for (const auto& [limit, most] : {std::pair(7, 358U),
                                    {250, 10U},
                                    {300, 9U},
                                    {500, 5U},
                                    {833, 4U},
                                    {999, 3U},
                                    {1000, 3U},
                                    {2499, 3U},
                                    {5000, 3U}}) {
    std::size_t pages = 0;
    EXPECT_EQ(all(folder, limit, &pages), expected) << limit;
    EXPECT_EQ(pages, most) << limit;
  }
  EXPECT_EQ(box_.send("GET /2.0/users/me").at("space_used"), "25000");
}

TEST_F(Listing, OrderIsByKindThenNameWithoutCase) {
  for (const char* name : {"b", "D", "a"}) (void)box_.folder("0", name);
  for (const char* name : {"C.txt", "a.txt", "B.txt"}) (void)box_.file("0", name, "x");
  EXPECT_EQ(all("0", 2), (std::vector<std::string>{"a", "b", "D", "a.txt", "B.txt", "C.txt"}));
}

TEST_F(Listing, ItemsAddedAndRemovedWhilePagingDoNotDisturbTheRest) {
  std::vector<std::string> ids;
  for (const char* name : {"b", "d", "f", "h"}) ids.push_back(box_.file("0", name, "x"));
  std::string marker;
  EXPECT_EQ(names_of(page("0", 2, marker)), (std::vector<std::string>{"b", "d"}));
  ASSERT_EQ(box_.send("DELETE /2.0/files/" + ids[1]).status, 204);
  (void)box_.file("0", "a", "x");
  EXPECT_EQ(names_of(page("0", 2, marker)), (std::vector<std::string>{"f", "h"}));
  EXPECT_EQ(marker, "");
}

TEST_F(Listing, OffsetsCountAndSort) {
  for (const char* name : {"c", "a", "b"}) (void)box_.file("0", name, std::string(name[0] == 'a' ? 9 : 1, 'x'));
  const std::string at = "/2.0/folders/0/items?";
  const reply second = box_.send("GET " + at + "offset=1&limit=1");
  second.expect("total_count=3|offset=1|order.1.by=name");
  EXPECT_EQ(names_of(second), std::vector<std::string>{"b"});
  EXPECT_EQ(names_of(box_.send("GET " + at + "sort=name&direction=DESC")), (std::vector<std::string>{"c", "b", "a"}));
  EXPECT_EQ(names_of(box_.send("GET " + at + "sort=size&direction=DESC&limit=1")), std::vector<std::string>{"a"});
  EXPECT_EQ(box_.send("GET " + at + "offset=10000").status, 400);
}

TEST_F(Listing, LastMarkerComesInThreeStyles) {
  for (const auto& [style, value] : {std::pair("null", "null"), {"empty", ""}, {"missing", ""}}) {
    box_.set(std::string(R"({"next_marker":")") + style + "\"}");
    const reply last = box_.send("GET /2.0/folders/0/items?usemarker=true");
    EXPECT_EQ(last.at("next_marker"), value) << style;
    EXPECT_EQ(last.body.find("next_marker") == std::string::npos, std::string(style) == "missing");
    EXPECT_EQ(last.at("total_count"), "");
  }
}

}  // namespace
}  // namespace emulator_test
