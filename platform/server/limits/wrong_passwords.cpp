#include "limits/wrong_passwords.h"

namespace tarvex::server {

namespace {

using moment = std::chrono::steady_clock::time_point;
using failure_slot = shared_limits::failures;

/// When the window began and how many came in it, in one word, so that both change at once.
struct failure_tally {
  static constexpr unsigned COUNT_BITS = 24;
  static constexpr std::uint64_t COUNT_MAX = (std::uint64_t{1} << COUNT_BITS) - 1;

  static failure_tally of(std::uint64_t word) { return {word >> COUNT_BITS, word & COUNT_MAX}; }
  std::uint64_t word() const { return since_ms << COUNT_BITS | count; }
  bool over(std::uint64_t now_ms, const password_rules& rules) const {
    const auto window_ms = static_cast<std::uint64_t>(std::chrono::milliseconds(rules.window).count());
    return count == 0 || now_ms - since_ms >= window_ms;
  }

  std::uint64_t since_ms = 0;
  std::uint64_t count = 0;
};

std::uint64_t since_start_ms(moment now) {
  return static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count());
}

template <typename Limits>
auto& failures_at(Limits& limits, std::uint64_t key, std::size_t probe) {
  return limits.wrong_passwords[(key + probe) % shared_limits::SLOTS];
}

/// The address's own slot, or one that it may take over: never used, or with a window that is over. Null: none.
failure_slot* failures_for(shared_limits& limits, std::uint64_t key, std::uint64_t now_ms,
                           const password_rules& rules) {
  failure_slot* free = nullptr;
  for (std::size_t probe = 0; probe < shared_limits::PROBES; ++probe) {
    failure_slot& candidate = failures_at(limits, key, probe);
    if (candidate.key == key) return &candidate;
    if (!free && failure_tally::of(candidate.state).over(now_ms, rules)) free = &candidate;
  }
  return free;
}

/// \return false when others have taken the slot meanwhile.
bool own_failures(failure_slot& place, std::uint64_t key, std::uint64_t now_ms, const password_rules& rules) {
  std::uint64_t before = place.key;
  if (before == key) return true;
  return failure_tally::of(place.state).over(now_ms, rules) && place.key.compare_exchange_strong(before, key);
}

/// What an old window has left, of whichever address, counts for nothing, so a slot that is taken over needs no reset.
void add_failure(failure_slot& place, std::uint64_t now_ms, const password_rules& rules) {
  std::uint64_t word = place.state;
  failure_tally next;
  do {
    next = failure_tally::of(word);
    if (next.over(now_ms, rules)) next = {now_ms, 0};
    if (next.count < failure_tally::COUNT_MAX) ++next.count;
  } while (!place.state.compare_exchange_weak(word, next.word()));
}

}  // namespace

bool wrong_passwords_used_up(const shared_limits& limits, std::uint64_t group, const password_rules& rules,
                             moment now) {
  if (rules.count == 0) return false;
  const std::uint64_t key = limits_hash(limits, group);
  for (std::size_t probe = 0; probe < shared_limits::PROBES; ++probe) {
    const failure_slot& candidate = failures_at(limits, key, probe);
    if (candidate.key != key) continue;
    const failure_tally counted = failure_tally::of(candidate.state);
    if (!counted.over(since_start_ms(now), rules) && counted.count >= rules.count) return true;
  }
  return false;
}

bool wrong_password_count(shared_limits& limits, std::uint64_t group, const password_rules& rules, moment now) {
  constexpr int TRIES = 8;  // each is lost only to somebody who has got a slot
  if (rules.count == 0) return true;
  const std::uint64_t key = limits_hash(limits, group);
  const std::uint64_t now_ms = since_start_ms(now);
  for (int tried = 0; tried < TRIES; ++tried) {
    failure_slot* const place = failures_for(limits, key, now_ms, rules);
    if (!place) return false;
    if (!own_failures(*place, key, now_ms, rules)) continue;
    add_failure(*place, now_ms, rules);
    if (place->key == key) return true;
  }
  return false;
}

}  // namespace tarvex::server
