#include "limits/arrivals.h"

namespace tarvex::server {

namespace {

constexpr std::chrono::seconds SWEEP_INTERVAL{1};

bool limit_reached(unsigned count, unsigned limit) {
  return limit != 0 && count >= limit;
}

}  // namespace

arrivals::verdict arrivals::admit(std::uint64_t group, const rules& limits, clock::time_point now) {
  counts* const known = find(group, now);
  if (known == nullptr) return verdict::uncounted;
  if (now - known->since >= WINDOW) *known = {.since = now, .connections = 0, .sessions = known->sessions};
  if (limit_reached(known->sessions, limits.sessions)) return verdict::too_many_sessions;
  if (limit_reached(known->connections, limits.connections)) return verdict::too_often;
  ++known->connections;
  ++known->sessions;
  return verdict::admitted;
}

void arrivals::leave(std::uint64_t group) {
  const auto found = groups_.find(group);
  if (found != groups_.end() && found->second.sessions > 0) --found->second.sessions;
}

/// \return null: there is no room for another group.
arrivals::counts* arrivals::find(std::uint64_t group, clock::time_point now) {
  const auto found = groups_.find(group);
  if (found != groups_.end()) return &found->second;
  if (groups_.size() >= GROUPS_MAX) forget_old(now);
  if (groups_.size() >= GROUPS_MAX) return nullptr;
  return &groups_.emplace(group, counts{.since = now}).first->second;
}

void arrivals::forget_old(clock::time_point now) {
  if (now - swept_ < SWEEP_INTERVAL) return;
  swept_ = now;
  std::erase_if(groups_,
                [now](const auto& entry) { return entry.second.sessions == 0 && now - entry.second.since >= WINDOW; });
}

}  // namespace tarvex::server
