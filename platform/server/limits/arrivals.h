#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <unordered_map>

namespace tarvex::server {

/// How many connections the addresses make, and how many sessions they have. The listener's own: it alone admits, so
/// that no session, taken over or not, can change these counts. One thread.
class arrivals {
 public:
  using clock = std::chrono::steady_clock;

  static constexpr std::size_t GROUPS_MAX = 65536;
  static constexpr std::chrono::seconds WINDOW{60};

  /// 0: no limit.
  struct rules {
    unsigned sessions = 0;
    unsigned connections = 0;  ///< that are admitted within the window, which begins with the first of them
  };

  enum class verdict {
    admitted,
    too_many_sessions,
    too_often,
    uncounted  ///< so many addresses have come lately that one more cannot be counted
  };

  /// Counts an arrival when it is admitted; the session has its place until `leave`. Constant time, but for a sweep
  /// over all groups that comes at most once a second, when as many as can be counted are there.
  [[nodiscard]] verdict admit(std::uint64_t group, const rules& limits, clock::time_point now);
  /// A session of the group is over, or did not come about.
  void leave(std::uint64_t group);

  [[nodiscard]] std::size_t groups() const { return groups_.size(); }

 private:
  struct counts {
    clock::time_point since;  ///< of the window
    unsigned connections = 0;
    unsigned sessions = 0;
  };

  counts* find(std::uint64_t group, clock::time_point now);
  void forget_old(clock::time_point now);

  std::unordered_map<std::uint64_t, counts> groups_;
  clock::time_point swept_{};
};

}  // namespace tarvex::server
