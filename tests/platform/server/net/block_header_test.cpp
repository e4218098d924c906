#include "net/block_header.h"

#include "net/block_schedule.h"
#include "net/block_tally.h"

#include <gtest/gtest.h>

#include <string>

namespace tarvex::server {
namespace {

constexpr std::uint64_t MAX = std::uint64_t{1} << 63;

TEST(BlockHeader, BytesStandInNetworkOrder) {
  const auto bytes = block_header_encode({72, 0x0102030405060708, 0xf1f2f3f4f5f6f7f8});
  EXPECT_EQ(std::string(bytes.begin(), bytes.end()),
            "\x48\x01\x02\x03\x04\x05\x06\x07\x08\xf1\xf2\xf3\xf4\xf5\xf6\xf7\xf8");
  const block_header read = block_header_decode(bytes);
  EXPECT_EQ(read.bits, 72);
  EXPECT_EQ(read.count, 0x0102030405060708U);
  EXPECT_EQ(read.offset, 0xf1f2f3f4f5f6f7f8U);
}

TEST(BlockHeader, WhatCannotBeIsToldApart) {
  const std::pair<block_header, bool> rows[] = {
      {{0, 1, 0}, true},        {{0, 0, 0}, true},          {{8, 5, 5}, true},        {{64, 0, 1}, true},
      {{76, 0, 16}, true},      {{128, 7, 0}, true},        {{64, 1, 1}, false},      {{16, 1, 0}, false},
      {{32, 1, 0}, false},      {{0, MAX - 1, 0}, true},    {{0, MAX, 0}, false},     {{0, MAX - 2, 1}, true},
      {{0, MAX - 2, 2}, false}, {{0, ~0ULL, ~0ULL}, false}, {{0, 1, MAX - 1}, false}, {{0, 2, ~0ULL}, false},
  };
  for (const auto& [header, good] : rows)
    EXPECT_EQ(block_header_mistake(header).empty(), good) << int{header.bits} << " " << header.count;
}

/// o: a connection was opened; e: one ended; a number: the end was announced for so many.
TEST(BlockTally, CountsConnectionsAndTheirEnds) {
  const struct {
    const char* events;
    const char* expected;  ///< "more", "complete", or what the first mistake says
  } rows[] = {
      {"oe1", "complete"},
      {"o1e", "complete"},
      {"ooo3eee", "complete"},
      {"o2eoe", "complete"},
      {"oe2", "more"},
      {"oooe3e", "more"},
      {"o0", "no data connection"},
      {"o5", "at most 4"},
      {"ooooo", "At most 4"},
      {"oo1", "More data connections were opened"},
      {"o1o", "were opened"},
      {"ooee1", "connections ended"},
      {"o11", "twice"},
  };
  for (const auto& row : rows) {
    block_tally tally(4);
    std::string mistake;
    for (const char* at = row.events; *at != '\0' && mistake.empty(); ++at) {
      if (*at == 'o') mistake = tally.opened();
      if (*at == 'e') mistake = tally.end_of_data();
      if (*at >= '0' && *at <= '9') mistake = tally.end_of_file(static_cast<std::uint64_t>(*at - '0'));
    }
    const std::string seen = !mistake.empty() ? mistake : tally.complete() ? "complete" : "more";
    EXPECT_NE(seen.find(row.expected), std::string::npos) << row.events << ": " << seen;
  }
}

TEST(BlockSchedule, PiecesAreDoneInOrderOnceTheirBlocksAre) {
  std::string told;
  const auto piece = [&told](const char* bytes, std::uint64_t offset) {
    data_piece made{reinterpret_cast<const unsigned char*>(bytes),
                    std::string_view(bytes).size(),
                    {},
                    [&told, bytes](bool sent) { told += std::string(sent ? "+" : "-") + bytes; },
                    offset};
    return made;
  };
  block_schedule schedule(3);
  for (const auto& [bytes, offset] : {std::pair("abcde", 10), {"", 0}, {"xyz", 100}, {"tail", 200}})
    schedule.add(piece(bytes, static_cast<std::uint64_t>(offset)));
  std::vector<block_schedule::block> blocks;
  std::string cut;
  for (int i = 0; i < 4; ++i) {
    blocks.push_back(schedule.next().value());
    cut += std::to_string(blocks.back().offset) + std::string(blocks.back().bytes.begin(), blocks.back().bytes.end());
  }
  EXPECT_EQ(cut, "10abc13de100xyz200tai");
  const std::pair<std::size_t, const char*> order[] = {{1, ""}, {2, ""}, {0, "+abcde++xyz"}, {3, "+abcde++xyz"}};
  for (const auto& [which, expected] : order) {
    schedule.let_go(blocks[which]);
    EXPECT_EQ(told, expected) << which;
  }
  schedule.give_up();
  EXPECT_EQ(told, "+abcde++xyz-tail");
  EXPECT_FALSE(schedule.next());
  schedule.add(piece("more", 300));
  EXPECT_EQ(schedule.next()->offset, 300U);
}

}  // namespace
}  // namespace tarvex::server
