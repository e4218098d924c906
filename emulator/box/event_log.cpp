#include "box/event_log.h"

#include "base/text.h"

namespace tarvex::emulator {
namespace {

constexpr std::size_t MAX_EVENTS = 10000;
constexpr std::size_t CHANNEL_BYTES = 12;

}  // namespace

void event_log::add(std::int64_t user, json_ptr event) {
  json_put(event.get(), "event_id", random_hex(20));
  const std::lock_guard lock(mutex_);
  auto& mine = events_[user];
  mine.push_back({next_++, std::move(event)});
  if (mine.size() > MAX_EVENTS) mine.pop_front();
}

json_ptr event_log::since(std::int64_t user, std::int64_t& position, std::int64_t limit) const {
  json_ptr list(json_array());
  const std::lock_guard lock(mutex_);
  const auto mine = events_.find(user);
  if (mine == events_.end()) return list;
  for (const entry& each : mine->second) {
    if (each.position < position) continue;
    if (static_cast<std::int64_t>(json_array_size(list.get())) >= limit) break;
    // A copy: the reference counts of one document are not for several threads.
    json_add(list.get(), json_ptr(json_deep_copy(each.event.get())));
    position = each.position + 1;
  }
  return list;
}

std::int64_t event_log::position(std::int64_t user) const {
  const std::lock_guard lock(mutex_);
  const auto mine = events_.find(user);
  return mine == events_.end() || mine->second.empty() ? 1 : mine->second.back().position + 1;
}

std::string event_log::channel_of(std::int64_t user) {
  const std::lock_guard lock(mutex_);
  for (const auto& [channel, owner] : channels_) {
    if (owner == user) return channel;
  }
  return channels_.emplace(random_hex(CHANNEL_BYTES), user).first->first;
}

std::int64_t event_log::user_of(const std::string& channel) const {
  const std::lock_guard lock(mutex_);
  const auto found = channels_.find(channel);
  return found == channels_.end() ? 0 : found->second;
}

void event_log::clear() {
  const std::lock_guard lock(mutex_);
  events_.clear();
}

}  // namespace tarvex::emulator
