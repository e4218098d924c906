#include "storage/change_view.h"

#include "storage/change_slots.h"

#include <gtest/gtest.h>

#include <memory>
#include <unordered_map>

namespace tarvex::server {
namespace {

using maker = change_view::maker;

/// Two sessions of an account, and the memory that they share.
class ChangeView : public testing::Test {
 protected:
  void open(const std::string& account) {
    self = other = {};
    self.open(slots.get(), account);
    other.open(slots.get(), account);
  }

  std::unique_ptr<change_slots> slots = std::make_unique<change_slots>();
  change_view self, other;
};

TEST_F(ChangeView, OthersChangesMakeStaleWhatLiesAtOrBelowThem) {
  enum who { I, OTHER, NOBODY };
  const struct {
    who by;
    bool adds;
    const char *entered, *asked;
    bool stale, unseen;
  } rows[] = {
      {OTHER, false, "/a", "/a", true, false},    {OTHER, false, "/a", "/a/b/c", true, false},
      {OTHER, false, "/a/b", "/a", false, false}, {OTHER, false, "/a/b", "/a/bc", false, false},
      {OTHER, false, "/", "/a", false, false},  // the root does not change
      {OTHER, true, "/a/b", "/a/b", false, true}, {OTHER, true, "/a", "/a/b", false, false},
      {I, false, "/a", "/a/b", false, false},     {I, true, "/a", "/a", false, false},
      {NOBODY, false, "/a", "/a/b", true, false}, {NOBODY, true, "/a", "/a", false, true},
  };
  int account = 0;
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << row.by << row.entered << " " << row.asked);
    open("account" + std::to_string(++account));
    change_view& who = row.by == OTHER ? other : self;
    const maker by = row.by == NOBODY ? maker::nobody : maker::self;
    row.adds ? who.enter_addition(row.entered, by) : who.enter_change(row.entered, by);
    EXPECT_EQ(self.stale(row.asked), row.stale);
    EXPECT_EQ(self.addition_unseen(row.asked), row.unseen);
    self.open(slots.get(), "account" + std::to_string(account));
    EXPECT_FALSE(self.stale(row.asked) || self.addition_unseen(row.asked)) << "a new session knows all";
    self.open(slots.get(), "someone else's");
    EXPECT_FALSE(self.stale(row.asked) || self.addition_unseen(row.asked));
  }
}

TEST_F(ChangeView, AListingShowsTheAdditionsBeforeIt) {
  open("alice");
  const std::uint64_t before = self.now();
  other.enter_addition("/a/new", maker::self);
  self.note_listed("/a", before);
  EXPECT_TRUE(self.addition_unseen("/a/new")) << "it may have come while the folder was listed";
  self.note_listed("/", self.now());
  EXPECT_TRUE(self.addition_unseen("/a/new"));
  self.note_listed("/a", self.now());
  EXPECT_FALSE(self.addition_unseen("/a/new"));
  other.enter_addition("/a/new", maker::self);
  EXPECT_TRUE(self.addition_unseen("/a/new"));
}

/// What a session enters itself must not hide what another has entered, for the same path or one of the same slot.
TEST_F(ChangeView, OnesOwnEntriesHideNothing) {
  std::unordered_map<const void*, std::string> paths;
  std::string first, second;
  for (int i = 0; first.empty(); ++i) {
    second = "/f" + std::to_string(i);
    auto [found, added] = paths.emplace(&change_slot(*slots, "alice", second), second);
    if (!added) first = found->second;
  }
  for (const std::string& own : {first, second}) {
    open("alice");
    other.enter_change(first, maker::self);
    other.enter_addition(first, maker::self);
    self.enter_change(own, maker::self);
    self.enter_addition(own, maker::self);
    EXPECT_TRUE(self.stale(first)) << own;
    EXPECT_TRUE(self.addition_unseen(first)) << own;
    self.open(slots.get(), "alice");
    self.enter_change(own, maker::self);
    EXPECT_FALSE(self.stale(own)) << "nothing was there to be hidden";
  }
}

TEST_F(ChangeView, WithoutOtherSessionsAllIsKnown) {
  change_view alone;
  alone.open(nullptr, "alice");
  alone.enter_change("/a", maker::nobody);
  alone.enter_addition("/a", maker::nobody);
  EXPECT_FALSE(alone.stale("/a") || alone.addition_unseen("/a"));
  EXPECT_EQ(alone.now(), 0U);
}

}  // namespace
}  // namespace tarvex::server
