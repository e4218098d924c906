#include "box/reservations.h"

#include "base/times.h"

namespace tarvex::emulator {
namespace {

/// What has run out stays in the table and counts as gone; there are never many.
template <typename Key>
bool holds(const std::map<Key, std::int64_t>& table, const Key& key) {
  const auto found = table.find(key);
  return found != table.end() && found->second > time_now_us();
}

}  // namespace

void reservations::lock_folder(std::int64_t folder, std::int64_t milliseconds) {
  const std::lock_guard lock(mutex_);
  folders_[folder] = time_now_us() + milliseconds * 1000;
}

void reservations::reserve_name(const std::string& name, std::int64_t milliseconds) {
  const std::lock_guard lock(mutex_);
  names_[name] = time_now_us() + milliseconds * 1000;
}

bool reservations::is_locked(std::int64_t folder) const {
  const std::lock_guard lock(mutex_);
  return holds(folders_, folder);
}

bool reservations::is_reserved(const std::string& name) const {
  const std::lock_guard lock(mutex_);
  return holds(names_, name);
}

void reservations::clear() {
  const std::lock_guard lock(mutex_);
  folders_.clear();
  names_.clear();
}

}  // namespace tarvex::emulator
