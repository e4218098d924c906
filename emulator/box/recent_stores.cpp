#include "box/recent_stores.h"

#include "base/times.h"

namespace tarvex::emulator {
namespace {

constexpr std::size_t SWEEP_STORES_ABOVE = 10000;

}  // namespace

void recent_stores::hide(const item& stored, const std::optional<item>& before, std::int64_t milliseconds) {
  if (milliseconds <= 0) return;
  const std::lock_guard lock(mutex_);
  const std::int64_t now = time_now_us();
  if (items_.size() > SWEEP_STORES_ABOVE)
    std::erase_if(items_, [&](const auto& each) { return each.second.until_us <= now; });
  earlier& entry = items_[{stored.owner, stored.type, stored.id}];
  // What is late already is not made younger by what follows it.
  if (entry.until_us <= now) entry.shown = before;
  entry.until_us = now + milliseconds * 1000;
}

std::optional<item> recent_stores::listed(const item& stored) const {
  const std::lock_guard lock(mutex_);
  const auto found = items_.find({stored.owner, stored.type, stored.id});
  if (found == items_.end() || found->second.until_us <= time_now_us()) return stored;
  return found->second.shown;
}

void recent_stores::hold_back(std::int64_t version, std::int64_t milliseconds) {
  if (milliseconds <= 0) return;
  const std::lock_guard lock(mutex_);
  const std::int64_t now = time_now_us();
  if (versions_.size() > SWEEP_STORES_ABOVE)
    std::erase_if(versions_, [&](const auto& each) { return each.second <= now; });
  versions_[version] = now + milliseconds * 1000;
}

bool recent_stores::is_held_back(std::int64_t version) const {
  const std::lock_guard lock(mutex_);
  const auto found = versions_.find(version);
  return found != versions_.end() && found->second > time_now_us();
}

void recent_stores::clear() {
  const std::lock_guard lock(mutex_);
  items_.clear();
  versions_.clear();
}

}  // namespace tarvex::emulator
