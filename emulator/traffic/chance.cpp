#include "traffic/chance.h"

#include <random>

namespace tarvex::emulator {
namespace {

/// One step of the SplitMix64 generator: the same numbers on every machine and with every library.
std::uint64_t step(std::uint64_t& state) {
  std::uint64_t mixed = (state += 0x9e3779b97f4a7c15ULL);
  mixed = (mixed ^ (mixed >> 30)) * 0xbf58476d1ce4e5b9ULL;
  mixed = (mixed ^ (mixed >> 27)) * 0x94d049bb133111ebULL;
  return mixed ^ (mixed >> 31);
}

/// FNV-1a; std::hash may differ between libraries.
std::uint64_t hash_of(std::string_view text) {
  std::uint64_t hash = 0xcbf29ce484222325ULL;
  for (const char c : text) hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3ULL;
  return hash;
}

}  // namespace

double chance_stream::next() {
  constexpr double UNIT = 1.0 / 9007199254740992.0;  // 2^-53: all that a double holds
  return static_cast<double>(step(state_) >> 11) * UNIT;
}

std::int64_t chance_stream::between(std::int64_t least, std::int64_t most) {
  const double width = static_cast<double>(most) - static_cast<double>(least) + 1;
  return least + static_cast<std::int64_t>(next() * width);
}

chance_stream chance_of(std::int64_t seed, std::string_view kind, std::int64_t count) {
  std::uint64_t state = static_cast<std::uint64_t>(seed);
  state = step(state) ^ hash_of(kind);
  state = step(state) ^ static_cast<std::uint64_t>(count);
  return chance_stream(step(state));
}

chance_stream chance_counter::of(std::int64_t seed, const std::string& kind) {
  const std::lock_guard lock(mutex_);
  return chance_of(seed, kind, ++counts_[kind]);
}

void chance_counter::restart() {
  const std::lock_guard lock(mutex_);
  counts_.clear();
}

std::int64_t chance_seed() {
  // Short enough to be typed again.
  std::random_device source;
  return std::uniform_int_distribution<std::int64_t>(1, 999999999)(source);
}

}  // namespace tarvex::emulator
