#include "storage/store.h"

#include <gtest/gtest.h>

namespace tarvex::server {
namespace {

TEST(BlockCounter, KnowsWhereTheBlockBeginsThatWasNotFilled) {
  struct step {
    std::size_t length, bytes;
    std::uint64_t offset;
    bool failed;
  };
  const struct {
    std::vector<step> steps;
    std::optional<std::uint64_t> failed;
  } rows[] = {
      {{{10, 10, 0, false}, {10, 10, 10, false}}, {}},
      {{{10, 10, 0, false}, {10, 0, 10, true}}, 10},
      {{{10, 10, 0, false}, {10, 4, 10, false}, {6, 0, 14, true}}, 10},  // within a block
      {{{10, 4, 0, false}, {6, 6, 4, false}, {10, 4, 10, false}, {6, 1, 14, true}}, 10},
      {{{10, 4, 0, false}, {10, 3, 4, true}}, 4},                   // not what was left over
      {{{10, 4, 0, true}, {6, 0, 4, true}, {10, 0, 10, true}}, 0},  // the first counts
      {{{10, 10, 100, false}, {0, 0, 110, true}}, 100},             // asks for what is left of a full block
  };
  int row_number = 0;
  for (const auto& row : rows) {
    block_counter counter;
    for (const step& of : row.steps)
      counter.note(of.length, {.failed = of.failed, .bytes = of.bytes, .offset = of.offset, .eof = of.failed});
    EXPECT_EQ(counter.failed(), row.failed) << row_number;
    ++row_number;
  }
}

}  // namespace
}  // namespace tarvex::server
