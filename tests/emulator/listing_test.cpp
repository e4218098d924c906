// Paging through folders, by markers and by offsets.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "box_process.h"

namespace emulator_test {
namespace {

std::string encoded(const std::string& marker) {
  std::string text;
  for (const char c : marker) text += c == '=' ? "%3D" : c == '+' ? "%2B" : c == '/' ? "%2F" : std::string(1, c);
  return text;
}

class Listing : public testing::Test {
 protected:
  /// A page after a marker; alters the marker to that of the next one, "" at the end.
  [[nodiscard]] reply page(const std::string& folder, int limit, std::string& marker) const {
    const reply answer =
        box_.send("GET", "/2.0/folders/" + folder + "/items?fields=name&usemarker=true&marker=" + encoded(marker) +
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
  ASSERT_EQ(box_.send("POST", "/_emulator/fill", R"({"folder":")" + folder + R"(","count":2500,"bytes":10})").status,
            204);
  std::size_t pages = 0;
  const auto expected = all(folder, 1000, &pages);
  EXPECT_EQ(pages, 3U);
  EXPECT_EQ(std::set(expected.begin(), expected.end()).size(), 2500U);
  EXPECT_TRUE(std::is_sorted(expected.begin(), expected.end()));
  for (const int limit : {7, 99, 250, 300, 833, 999, 2499, 2500, 5000})
    EXPECT_EQ(all(folder, limit), expected) << limit;
  pages = 0;
  EXPECT_EQ(all(folder, 1250, &pages).size(), 2500U);
  EXPECT_EQ(pages, 3U) << "a limit above 1000 counts as 1000";
  pages = 0;
  EXPECT_EQ(all(folder, 500, &pages).size(), 2500U);
  EXPECT_EQ(pages, 5U) << "no empty page behind a full last one";
  EXPECT_EQ(box_.send("GET", "/2.0/users/me").at("space_used"), "25000");
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
  ASSERT_EQ(box_.send("DELETE", "/2.0/files/" + ids[1]).status, 204);
  (void)box_.file("0", "a", "x");
  EXPECT_EQ(names_of(page("0", 2, marker)), (std::vector<std::string>{"f", "h"}));
  EXPECT_EQ(marker, "");
}

TEST_F(Listing, OffsetsCountAndSort) {
  for (const char* name : {"c", "a", "b"}) (void)box_.file("0", name, std::string(name[0] == 'a' ? 9 : 1, 'x'));
  const std::string at = "/2.0/folders/0/items?";
  const reply second = box_.send("GET", at + "offset=1&limit=1");
  EXPECT_EQ(second.at("total_count"), "3");
  EXPECT_EQ(second.at("offset"), "1");
  EXPECT_EQ(second.at("order.1.by"), "name");
  EXPECT_EQ(names_of(second), std::vector<std::string>{"b"});
  EXPECT_EQ(names_of(box_.send("GET", at + "sort=name&direction=DESC")), (std::vector<std::string>{"c", "b", "a"}));
  EXPECT_EQ(names_of(box_.send("GET", at + "sort=size&direction=DESC&limit=1")), std::vector<std::string>{"a"});
  EXPECT_EQ(box_.send("GET", at + "offset=10000").status, 400);
}

TEST_F(Listing, LastMarkerComesInThreeStyles) {
  for (const auto& [style, value] : {std::pair("null", "null"), {"empty", ""}, {"missing", ""}}) {
    box_.set(std::string(R"({"next_marker":")") + style + "\"}");
    const reply last = box_.send("GET", "/2.0/folders/0/items?usemarker=true");
    EXPECT_EQ(last.at("next_marker"), value) << style;
    EXPECT_EQ(last.body.find("next_marker") == std::string::npos, std::string(style) == "missing");
    EXPECT_EQ(last.at("total_count"), "");
  }
}

}  // namespace
}  // namespace emulator_test
