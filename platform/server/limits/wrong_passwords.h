#pragma once

#include "limits/shared_limits.h"

#include <chrono>
#include <cstdint>

namespace tarvex::server {

/// The limit on wrong passwords of one address: `count` of them (0: no limit) within `window`, which begins with the
/// first. A right password takes nothing back.
struct password_rules {
  unsigned count = 0;
  std::chrono::seconds window{1};
};

/// Any process of those that share `limits`. `now` is a monotonic time, the same clock in all of them.

/// Whether the address has used its wrong passwords up.
[[nodiscard]] bool wrong_passwords_used_up(const shared_limits& limits, std::uint64_t group,
                                           const password_rules& rules, std::chrono::steady_clock::time_point now);
/// Counts one. \return false when there is no room to count it: so many addresses have guessed lately.
[[nodiscard]] bool wrong_password_count(shared_limits& limits, std::uint64_t group, const password_rules& rules,
                                        std::chrono::steady_clock::time_point now);

}  // namespace tarvex::server
