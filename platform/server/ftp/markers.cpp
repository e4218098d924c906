#include "ftp/markers.h"

#include "ftp/file_ranges.h"
#include "ftp/reply.h"

#include <fmt/core.h>

#include <chrono>

namespace tarvex::server {

namespace {

std::string performance_marker(std::uint64_t moved) {
  using std::chrono::duration_cast, std::chrono::milliseconds, std::chrono::system_clock;
  const auto now = duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
  return reply_block(112, "Perf Marker",
                     {fmt::format("Timestamp: {}.{}", now / 1000, now % 1000 / 100), "Stripe Index: 0",
                      "Stripe Bytes Transferred: " + std::to_string(moved), "Total Stripe Count: 1"},
                     "End.");
}

}  // namespace

std::string markers_format(std::uint64_t moved, std::uint64_t restart_point) {
  std::string markers;
  if (restart_point > 0) markers = reply_format(111, "Range Marker " + file_ranges_format({{0, restart_point}}));
  return markers + performance_marker(moved);
}

}  // namespace tarvex::server
