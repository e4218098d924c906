#include "net/block_window.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace tarvex::server {
namespace {

constexpr std::size_t CHUNK = window_memory::CHUNK_BYTES;
using fit = block_window::fit;

std::string pattern(std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 31 + i / 251);
  return bytes;
}

/// Memory that several windows share.
struct account {
  std::size_t limit = SIZE_MAX;
  std::size_t taken = 0;

  memory_account use() {
    return {[this](std::size_t bytes) { return taken + bytes <= limit && (taken += bytes, true); },
            [this](std::size_t bytes) { taken -= bytes; }};
  }
};

struct block {
  std::uint64_t offset, count;
};

/// Brings blocks one after the other.
struct lane {
  std::deque<block> blocks;
  bool promised = false;
  std::uint64_t done = 0;

  /// \return whether bytes found room.
  bool bring(block_window& window, const std::string& file, std::uint64_t most) {
    if (blocks.empty()) return false;
    const auto [offset, count] = blocks.front();
    if (!std::exchange(promised, true)) {
      EXPECT_EQ(window.promise(offset, count), fit::fresh);
    }
    const auto room = window.room(offset + done, std::min(most, count - done));
    if (room.empty()) return false;
    std::copy_n(file.begin() + static_cast<std::ptrdiff_t>(offset + done), room.size(), room.begin());
    window.added(offset + done, room.size());
    done += room.size();
    if (done < count) return true;
    blocks.pop_front();
    promised = false;
    done = 0;
    return true;
  }
};

struct schedule {
  const char* name;
  std::size_t size, largest_block, lanes, window, account;
  std::size_t disorder;  ///< how far a block may be from its place, in blocks
  bool all_arrive;
};

std::vector<lane> deal(const schedule& row, std::mt19937& random) {
  std::vector<block> blocks;
  for (std::uint64_t offset = 0; offset < row.size;) {
    blocks.push_back({offset, std::min<std::uint64_t>(1 + random() % row.largest_block, row.size - offset)});
    offset += blocks.back().count;
  }
  for (std::size_t i = 0; row.disorder > 0 && i < blocks.size(); ++i)
    std::swap(blocks[i], blocks[std::min(blocks.size() - 1, i + random() % (row.disorder + 1))]);
  std::vector<lane> lanes(row.lanes);
  for (const block& each : blocks) lanes[random() % row.lanes].blocks.push_back(each);
  return lanes;
}

/// Whatever the schedule: bytes come out once and in order, memory stays bounded, and where no more can come, every
/// lane waits with bytes that lie behind a gap.
TEST(BlockWindow, BytesComeOutOnceInOrderAndInBoundedMemory) {
  const schedule rows[] = {
      {"dealt in order", 9 * CHUNK + 17, 3 * CHUNK, 4, 4 * CHUNK, SIZE_MAX, 0, true},
      {"one chunk", 3 * CHUNK, CHUNK / 3, 16, CHUNK, SIZE_MAX, 0, true},
      {"no memory but one's own", 5 * CHUNK, CHUNK, 8, 8 * CHUNK, 0, 0, true},
      {"little memory for all", 5 * CHUNK, CHUNK, 8, 8 * CHUNK, 2 * CHUNK, 0, true},
      {"disorder within the window", 6 * CHUNK, CHUNK / 8, 2, 6 * CHUNK, SIZE_MAX, 20, true},
      {"disorder beyond it", 40 * CHUNK, CHUNK, 3, 4 * CHUNK, SIZE_MAX, 60, false},
      {"few bytes each", 20'000, 3, 8, 2 * CHUNK, SIZE_MAX, 0, true},
      {"few bytes each, far apart", 60'000, 2, 2, 2 * CHUNK, SIZE_MAX, 59'999, false},
  };
  for (const schedule& row : rows) {
    const std::string file = pattern(row.size);
    for (unsigned seed = 1; seed <= 10; ++seed) {
      SCOPED_TRACE(testing::Message() << row.name << " " << seed);
      std::mt19937 random(seed);
      account shared{row.account};
      block_window window(0, row.window, shared.use());
      std::vector<lane> lanes = deal(row, random);
      std::string taken;
      for (bool moved = true; moved;) {
        moved = false;
        for (lane& each : lanes) moved |= random() % 3 > 0 && each.bring(window, file, 1 + random() % (2 * CHUNK));
        std::string out(random() % 3 == 0 ? 1 + random() % (3 * CHUNK) : 0, '\0');
        taken.append(out, 0, window.take({reinterpret_cast<unsigned char*>(out.data()), out.size()}));
        ASSERT_LE(window.memory_bytes(), row.window);
        ASSERT_LE(shared.taken, row.account);
        moved |= window.in_order() > 0;
        for (lane& each : lanes) moved |= !moved && each.bring(window, file, CHUNK);
      }
      EXPECT_TRUE(taken == file.substr(0, taken.size()));
      EXPECT_TRUE(taken.size() == file.size() || !row.all_arrive);
      for (const lane& each : lanes) {
        EXPECT_TRUE(each.blocks.empty() || each.blocks.front().offset + each.done > window.missing());
      }
    }
  }
}

TEST(BlockWindow, BlocksAgreeWithWhatCameBefore) {
  const struct {
    std::uint64_t offset, count;
    fit expected;
  } rows[] = {
      {100, 50, fit::fresh},   {100, 50, fit::repeats}, {149, 2, fit::clashes},      {99, 2, fit::clashes},
      {110, 10, fit::repeats}, {150, 50, fit::fresh},   {120, 60, fit::repeats},     {90, 200, fit::clashes},
      {50, 10, fit::repeats},  {59, 2, fit::clashes},   {0, 60, fit::repeats},       {0, 0, fit::repeats},
      {199, 2, fit::clashes},  {300, 1, fit::fresh},    {200, 100, fit::fresh},      {60, 40, fit::fresh},
      {0, 301, fit::repeats},  {0, 302, fit::clashes},  {0xffffffff, 9, fit::fresh},
  };
  block_window window(60, CHUNK, {});
  for (const auto& row : rows)
    EXPECT_EQ(window.promise(row.offset, row.count), row.expected) << row.offset << " " << row.count;
  EXPECT_EQ(window.room(100, 50).size(), 50U);
  window.added(100, 50);
  EXPECT_EQ(window.promise(100, 50), fit::repeats) << "also once it is there";
  EXPECT_EQ(window.promise(100, 301), fit::clashes);
  EXPECT_TRUE(window.room(0xffffffff, 9).empty()) << "beyond the window";
}

/// Two windows that each have what the other one needs would wait for ever.
TEST(BlockWindow, WindowsThatShareMemoryGoOn) {
  account shared{2 * CHUNK};
  block_window greedy(0, 8 * CHUNK, shared.use());
  const auto fill = [](block_window& window, std::uint64_t position) {
    if (window.promise(position, CHUNK) != fit::fresh) return false;
    const bool room = window.room(position, CHUNK).size() == CHUNK;
    if (room) window.added(position, CHUNK);
    return room;
  };
  {
    block_window other(0, 8 * CHUNK, shared.use());
    EXPECT_TRUE(fill(greedy, CHUNK));
    EXPECT_TRUE(fill(other, CHUNK));
    EXPECT_FALSE(fill(greedy, 3 * CHUNK));
    EXPECT_TRUE(greedy.short_of_account());
    EXPECT_FALSE(fill(greedy, 20 * CHUNK));
    EXPECT_FALSE(greedy.short_of_account()) << "that lies beyond the window";
    EXPECT_TRUE(fill(other, 0));
    EXPECT_EQ(other.in_order(), 2 * CHUNK);
  }
  EXPECT_EQ(shared.taken, CHUNK) << "given back";
  EXPECT_EQ(greedy.room(3 * CHUNK, CHUNK).size(), CHUNK);
}

}  // namespace
}  // namespace tarvex::server
