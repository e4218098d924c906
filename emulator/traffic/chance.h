#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <string_view>

namespace tarvex::emulator {

/// The draws of one request, one after another; fixed by what the stream was made of.
class chance_stream {
 public:
  explicit chance_stream(std::uint64_t state) : state_(state) {}

  /// From 0 up to, but not including, 1.
  [[nodiscard]] double next();
  [[nodiscard]] bool hits(double probability) { return next() < probability; }

  /// A whole number, both ends included.
  [[nodiscard]] std::int64_t between(std::int64_t least, std::int64_t most);

 private:
  std::uint64_t state_;
};

/// The stream of the `count`th request of its kind under a seed.
[[nodiscard]] chance_stream chance_of(std::int64_t seed, std::string_view kind, std::int64_t count);

/// Counts the requests of each kind. What a request meets depends on its kind and on how many of the kind came before,
/// not on what came in between: so requests that run side by side meet the same in whatever order they come. Usable
/// from all threads.
class chance_counter {
 public:
  [[nodiscard]] chance_stream of(std::int64_t seed, const std::string& kind);

  /// Starts all counts again.
  void restart();

 private:
  std::mutex mutex_;  // guards counts_
  std::map<std::string, std::int64_t> counts_;
};

/// A seed that nobody chose; above 0.
[[nodiscard]] std::int64_t chance_seed();

}  // namespace tarvex::emulator
