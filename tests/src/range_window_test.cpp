#include "range_window.h"

#include "../platform/common/results.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

using tarvex::box::download_monitor;
using tarvex::box::range_window;
using tarvex::box::window_range_ptr;

namespace {

constexpr size_t BLOCK_BYTES = 100000;

/// A client, in place of an operation, that takes what is written when it is told to.
struct Client {
  struct Write {
    std::string bytes;
    tarvex_off_t offset;
    std::function<void(tarvex_result_t)> done;
  };
  bool any_order = false;
  bool gone = false;
  std::mutex mutex;
  std::condition_variable changed;
  std::deque<Write> waiting;
  std::vector<std::pair<tarvex_off_t, std::string>> taken;

  tarvex_gfs_operation_t op() { return reinterpret_cast<tarvex_gfs_operation_t>(this); }
  /// Completes writes until so many bytes have come.
  void take(size_t bytes, tarvex_result_t result = TARVEX_SUCCESS) {
    const tarvex::owned_result owned(result);
    while (bytes > 0) {
      std::unique_lock lock(mutex);
      changed.wait(lock, [this] { return !waiting.empty(); });
      Write write = std::move(waiting.front());
      waiting.pop_front();
      taken.emplace_back(write.offset, write.bytes);
      lock.unlock();
      bytes -= write.bytes.size();
      write.done(result);
    }
  }
  std::string in_order() const {
    std::string whole;
    for (const auto& [offset, bytes] : taken) {
      EXPECT_EQ(offset, static_cast<tarvex_off_t>(whole.size()));
      whole += bytes;
    }
    return whole;
  }
};

Client& of(tarvex_gfs_operation_t op) {
  return *reinterpret_cast<Client*>(op);
}

std::string bytes_at(size_t begin, size_t end) {
  std::string bytes;
  for (size_t i = begin; i < end; ++i) bytes += static_cast<char>(i * 7 + i / 251);
  return bytes;
}

struct RangeWindowTest : testing::Test {
  void give(range_window& window, const window_range_ptr& range, size_t count) {
    const auto begin = static_cast<size_t>(range->next);
    const std::string bytes = bytes_at(begin, begin + count);
    window.take(range, reinterpret_cast<const unsigned char*>(bytes.data()), count);
  }
  size_t open(const range_window& window) {
    const std::lock_guard lock(monitor.mutex);
    return window.open_ranges();
  }
  Client client;
  download_monitor monitor;
};

}  // namespace

extern "C" {

TARVEX_API void tarvex_gridftp_server_get_block_size(tarvex_gfs_operation_t, size_t* block_size) {
  *block_size = BLOCK_BYTES;
}

TARVEX_API bool tarvex_gridftp_server_allow_unordered_writes(tarvex_gfs_operation_t op) {
  return of(op).any_order;
}

TARVEX_API tarvex_result_t tarvex_gridftp_server_register_write(tarvex_gfs_operation_t op, unsigned char* buffer,
                                                                size_t length, tarvex_off_t offset, int,
                                                                tarvex_gridftp_server_write_cb_t callback,
                                                                void* user_arg) {
  Client& client = of(op);
  const std::lock_guard lock(client.mutex);
  if (client.gone) return failure("gone");
  client.waiting.push_back({{reinterpret_cast<char*>(buffer), length}, offset, [=](tarvex_result_t result) {
                              std::memset(buffer, 0, length);  // it is the window's again
                              callback(op, result, buffer, length, user_arg);
                            }});
  client.changed.notify_all();
  return TARVEX_SUCCESS;
}

}  // extern "C"

TEST_F(RangeWindowTest, RangesThatComeAtOnceGoInOrder) {
  constexpr size_t RANGE = 350001, COUNT = 6;
  range_window window(client.op(), monitor);
  std::vector<window_range_ptr> ranges;
  for (size_t i = 0; i < COUNT; ++i) {
    ranges.push_back(window.open(static_cast<tarvex_off_t>(i * RANGE), static_cast<tarvex_off_t>((i + 1) * RANGE)));
  }
  std::vector<std::jthread> threads;
  for (const auto& range : ranges) {
    threads.emplace_back([&, range] {
      while (!range->complete())
        give(window, range, std::min<size_t>(16384, static_cast<size_t>(range->end - range->next)));
    });
  }
  client.take(COUNT * RANGE);
  threads.clear();
  EXPECT_EQ(client.in_order(), bytes_at(0, COUNT * RANGE));
  EXPECT_EQ(open(window), 0u);
}

TEST_F(RangeWindowTest, BlocksGrowWhileTheClientIsBusyAndNothingWaitsWhileItIsNot) {
  range_window window(client.op(), monitor);
  const auto first = window.open(0, 300000), second = window.open(300000, 600000);
  const auto written = [&] {
    std::vector<size_t> sizes;
    for (const auto& write : client.waiting) sizes.push_back(write.bytes.size());
    return sizes;
  };
  using sizes = std::vector<size_t>;
  give(window, first, 1000);
  EXPECT_EQ(written(), sizes{}) << "crumbs wait a moment";
  window.idle(first);
  EXPECT_EQ(written(), sizes{1000}) << "and no longer";
  give(window, first, 70000);
  window.idle(first);
  EXPECT_EQ(written(), sizes{1000}) << "the client is busy";
  client.take(1000);
  give(window, first, 1);
  EXPECT_EQ(written(), sizes{70001}) << "it is not any more";
  give(window, second, 299999);
  give(window, first, 228999);
  EXPECT_EQ(written(), (sizes{70001, 100000, 100000, 28999, 100000, 100000}));
  client.take(70001 + 228999 + 200000);
  EXPECT_EQ(open(window), 1u);
  window.idle(second);
  give(window, second, 1);
  client.take(100000);
  EXPECT_EQ(client.in_order(), bytes_at(0, 600000));
}

TEST_F(RangeWindowTest, TellsWhatIsLeft) {
  for (const bool any_order : {false, true}) {
    client.any_order = any_order;
    client.taken.clear();
    range_window window(client.op(), monitor);
    const auto first = window.open(0, 200000), second = window.open(200000, 300000),
               third = window.open(300000, 500000);
    give(window, second, 100000);
    give(window, third, 150000);
    give(window, first, 100000);
    client.take(any_order ? 300000 : 100000);
    const std::lock_guard lock(monitor.mutex);
    using gaps = std::vector<std::pair<tarvex_off_t, tarvex_off_t>>;
    const gaps ordered = {{100000, 200000}, {200000, 300000}, {300000, 500000}},
               unordered = {{100000, 200000}, {400000, 500000}};
    EXPECT_EQ(window.not_handed(), any_order ? unordered : ordered);
    EXPECT_EQ(window.open_ranges(), any_order ? 2u : 3u) << "what the client has takes no memory";
  }
}

TEST_F(RangeWindowTest, AClientThatIsGoneStopsTheDownload) {
  for (const bool at_once : {true, false}) {
    {
      client.gone = at_once;
      range_window window(client.op(), monitor);
      const auto range = window.open(0, 300000);
      give(window, range, 200000);
      if (!at_once) client.take(200000, failure("pulled"));
      give(window, range, 100000);
    }
    EXPECT_TRUE(monitor.stopped);
    EXPECT_EQ(text_of(monitor.failure.release()), at_once ? "gone" : "pulled");
    EXPECT_TRUE(client.waiting.empty());
    monitor.stopped = false;
  }
}
