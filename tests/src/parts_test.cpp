#include "parts_fixture.h"

#include <string>

using testing::AllOf;
using testing::Contains;
using testing::HasSubstr;
using testing::Le;
using testing::Not;
using testing::StartsWith;

namespace {

constexpr char OVERLAP[] = R"({"code":"range_overlaps_existing_part"})";

/// What Box does to one part, try by try, and what comes of it.
struct Fault {
  const char* what;
  std::vector<Try> tries;
  size_t puts;            ///< of that part
  bool listed;            ///< Box is asked what it has
  std::string error;      ///< empty: all goes well
  std::string wait = {};  ///< that Box asked for
};

const std::vector<Fault> FAULTS = {
    {"cut before it was stored", {{cut}}, 2, true, ""},
    {"stored, its answer lost", {{cut, true}}, 1, true, ""},
    {"stored, answered 500", {{code(500), true}}, 1, true, ""},
    {"500 three times", {{code(500)}, {code(500)}, {code(500)}}, 4, true, ""},
    {"502 for ever", {{code(502), false, 0}}, 5, true, "INTERNAL_ERROR"},
    {"stored at last, answered 500",
     {{code(500)}, {code(500)}, {code(500)}, {code(500)}, {code(500), true}},
     5,
     true,
     ""},
    {"busy", {{code(429)}}, 2, false, ""},
    {"busy for so long", {{code(429, "", "7")}}, 2, false, "", "7.0"},
    {"busy for longer than one waits", {{code(429, "", "700")}}, 2, false, "", "25.0"},
    {"busy for ever", {{code(429), false, 0}}, 5, false, "TOO_BUSY"},
    {"not available for so long", {{code(503, "", "3"), true}}, 1, true, "", "3.0"},
    {"there already", {{code(416, OVERLAP), true}}, 1, true, ""},
    {"there already, without a word", {{code(416), true}}, 1, true, ""},
    {"not there although Box says so", {{code(416, OVERLAP)}}, 2, true, ""},
    {"being stored at this moment", {{code(409, R"({"code":"conflict"})"), true}}, 1, true, ""},
    {"an answer without a body", {{code(200), true}}, 1, true, ""},
    {"an answer without a part", {{code(200, "{}"), true}}, 1, true, ""},
    {"the token is refused", {{code(401)}}, 2, false, ""},
    {"each token is refused", {{code(401), false, 0}}, 2, false, "PERMISSION_DENIED"},
    {"forbidden", {{code(403)}}, 1, false, "PERMISSION_DENIED"},
    {"the session is gone", {{code(404)}}, 1, false, "PATH_NOT_FOUND"},
    {"the session has expired", {{code(410, R"({"code":"session_expired"})")}}, 1, false, "code: \"session_expired\""},
    {"the digest does not fit", {{code(412)}}, 1, false, "Box refused a part with status 412."},
    {"a certificate is refused", {{dead}}, 1, false, "transport 7002"},
};

TEST_F(PartsTest, EachFaultOfAPartIsCuredOrTold) {
  for (const int place : {0, 2, 5}) {
    for (const Fault& fault : FAULTS) {
      SCOPED_TRACE(std::string(fault.what) + ", part " + std::to_string(place));
      begin();
      box.faults[place] = {fault.tries.begin(), fault.tries.end()};
      const std::string error = store();
      EXPECT_EQ(box.puts[place], fault.puts);
      EXPECT_EQ(box.listings > 0, fault.listed);
      const auto waits = box_script.take_waits();
      if (!fault.wait.empty()) {
        EXPECT_THAT(waits, Contains(fault.wait));
      }
      if (fault.error.empty()) {
        EXPECT_EQ(error, "");
        expect_stored();
      } else {
        EXPECT_THAT(error, AllOf(HasSubstr(fault.error),
                                 HasSubstr("Box-Upload-Offset: \"" + std::to_string(place * PART) + "\"")));
        EXPECT_EQ(box.committed, "");
      }
    }
  }
}

TEST_F(PartsTest, AListThatCannotBeHadLeavesItOpen) {
  const struct {
    std::vector<Answer> listings;
    size_t puts;
    const char* error;
  } rows[] = {
      {{code(500), code(200)}, 2, ""},
      {std::vector<Answer>(30, code(500)), 1, "transport 7001"},
      {std::vector<Answer>(30, code(403)), 1, "transport 7001"},
      {{code(401)}, 2, ""},
  };
  for (const auto& row : rows) {
    begin();
    box.faults[1] = {{cut}};
    box.listing_answers = {row.listings.begin(), row.listings.end()};
    EXPECT_THAT(store(), StartsWith(*row.error != '\0' ? "Box-Upload-Offset: \"4\"" : ""));
    EXPECT_EQ(box.puts[1], row.puts);
    if (*row.error == '\0') expect_stored();
  }
}

TEST_F(PartsTest, TheListIsReadToItsEnd) {
  box.faults[0] = {{cut, true}};
  box.waits_for = {{0, 3}, {3, 2}, {2, 1}};  // so that it is the last of four
  EXPECT_EQ(store(), "");
  EXPECT_EQ(box.puts[0], 1u);
  EXPECT_GE(box.listings, 2u);
  expect_stored();
}

TEST_F(PartsTest, GoesOnAtTheGap) {
  for (const int gap : {0, 1, 3, 5}) {
    SCOPED_TRACE(gap);
    begin();
    box.faults[gap] = {{code(500), false, 0}};
    box.waits_for[gap] = std::min(gap + 2, PARTS - 1);  // which is stored first
    EXPECT_NE(store(), "");
    const auto stored = box.stored_parts();
    EXPECT_THAT(stored, Not(Contains(gap)));
    box.faults.clear();
    box.waits_for.clear();
    for (const int wrong : {gap - 1, gap + 1}) {
      if (wrong < 0) continue;
      EXPECT_EQ(store(wrong),
                "APPEND_NOT_SUPPORTED\nThis upload can go on at byte " + std::to_string(gap * PART) + " only.");
      EXPECT_EQ(framework.begun, 0);
    }
    box.puts.clear();
    EXPECT_EQ(store(gap), "");
    for (const int part : stored) EXPECT_EQ(box.puts[part], 0u) << part;
    EXPECT_EQ(box.puts[gap], 1u);
    expect_stored();
  }
}

TEST_F(PartsTest, GoesOnAfterSeveralGaps) {
  for (const auto& where : {std::vector<int>{0, 2}, {1, 2, 3}, {2, 5}, {0, 1, 2, 3, 4, 5}}) {
    begin();
    for (const int part : where) box.faults[part] = {{code(403)}};
    int runs = 0;
    for (std::string error = store(); !error.empty() && runs < 9; ++runs) {
      static const std::string OFFSET = "Box-Upload-Offset: \"";
      const size_t at = error.find(OFFSET);
      ASSERT_NE(at, std::string::npos) << error;
      error = store(std::stoi(error.substr(at + OFFSET.size())) / PART);
    }
    EXPECT_THAT(runs, Le(static_cast<int>(where.size())));
    expect_stored();
  }
}

TEST_F(PartsTest, AClientThatIsCutOffGoesOn) {
  for (const int at_once : {1, 4}) {
    begin();
    const SettingScope concurrency(tarvex_i_box_part_concurrency, at_once);
    client_breaks_off_at = 3 * PART + 2;
    EXPECT_THAT(store(), StartsWith(at_once == 1 ? "cable pulled" : "Box-Upload-Offset: \"12\"\ncable pulled"));
    client_breaks_off_at = -1;
    EXPECT_EQ(store(3), "");
    expect_stored();
  }
}

TEST_F(PartsTest, OtherBytesAreNeverMixedIn) {
  begin();
  box.faults[1] = {{code(500), false, 0}};
  box.waits_for[1] = 2;
  EXPECT_NE(store(), "");
  box.faults.clear();
  data[2 * PART] = 'X';
  EXPECT_THAT(store(1), HasSubstr("UPLOAD_CHANGED\nBox holds other bytes at offset 8 of this upload"));
  EXPECT_EQ(box.committed, "");
}

TEST_F(PartsTest, MemoryWidthAndSeatsBoundWhatIsOnItsWay) {
  const struct {
    const char* what;
    int concurrency, memory, seats_elsewhere;
    int expected;
  } rows[] = {
      {"the setting", 4, 1000, 0, 4}, {"one more than there are parts", 8, 1000, 0, PARTS},
      {"memory", 4, 3 * PART, 0, 3},  {"a part larger than the memory goes alone", 4, 1, 0, 1},
      {"seats", 4, 1000, 6, 2},       {"the first needs no seat", 4, 1000, 8, 1},
  };
  for (const auto& row : rows) {
    begin();
    const SettingScope concurrency(tarvex_i_box_part_concurrency, row.concurrency);
    const SettingScope memory(tarvex_i_box_part_memory, row.memory);
    tarvex::box::connection_seats elsewhere(session->user_id);
    for (int i = 0; i < row.seats_elsewhere; ++i) EXPECT_TRUE(elsewhere.take());
    box.hold_until = row.expected;
    EXPECT_EQ(store(), "") << row.what;
    EXPECT_EQ(box.most_at_once, row.expected) << row.what;
    expect_stored();
    EXPECT_EQ(elsewhere.taken(), row.seats_elsewhere);
  }
}

TEST_F(PartsTest, SeatsAreGivenBackPartByPart) {
  int free = 0;
  box.before_last = [&] {
    tarvex::box::connection_seats others(session->user_id);
    while (others.take()) ++free;
  };
  EXPECT_EQ(store(), "");
  EXPECT_EQ(free, tarvex::box::connection_seats::COUNT - 1);
}

TEST_F(PartsTest, PartsDrawOnTheBucketOrAreSpaced) {
  for (const int paced : {0, 1}) {
    begin();
    const SettingScope scope(tarvex_i_box_part_paced, paced);
    for (int i = 0; i < 240; ++i) tarvex::box::part_bucket(session->user_id).draw();
    box_script.waits.clear();
    if (paced == 0) box.faults[0] = {{code(429)}};  // a further try is drawn too
    EXPECT_EQ(store(), "");
    const auto count = [](const char* wait) {
      return std::count(box_script.waits.begin(), box_script.waits.end(), wait);
    };
    EXPECT_EQ(count("0.250000000"), paced == 0 ? 2 : PARTS);  // one of them before the further try
    EXPECT_EQ(count("1.750000000"), paced == 0 ? 1 : 0);
  }
}

TEST_F(PartsTest, GivesNothingOutWhileAPartIsBeingCured) {
  box.faults[0] = {{cut}};
  box.others_wait_for_list = true;
  EXPECT_EQ(store(), "");
  EXPECT_GE(box.listings, 1u);  // pages
  EXPECT_EQ(box.begun_during_list, 0u);
  expect_stored();
}

}  // namespace
