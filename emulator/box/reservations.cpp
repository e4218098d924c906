#include "box/reservations.h"

#include "base/names.h"
#include "base/times.h"

namespace tarvex::emulator {
namespace {

constexpr std::size_t SWEEP_NAMES_ABOVE = 10000;

/// What has run out counts as gone, whether it is still in the table or not.
template <typename Key>
bool holds(const std::map<Key, std::int64_t>& table, const Key& key) {
  const auto found = table.find(key);
  return found != table.end() && found->second > time_now_us();
}

/// No name has a slash, so these are apart from the plain names.
std::string place_of(std::int64_t owner, std::int64_t folder, std::string_view name) {
  return std::to_string(owner) + "/" + std::to_string(folder) + "/" + name_folded(name);
}

}  // namespace

void reservations::lock_folder(std::int64_t folder, std::int64_t milliseconds) {
  const std::lock_guard lock(mutex_);
  folders_[folder] = time_now_us() + milliseconds * 1000;
}

void reservations::reserve_name(const std::string& name, std::int64_t milliseconds) {
  const std::lock_guard lock(mutex_);
  const std::int64_t now = time_now_us();
  if (names_.size() > SWEEP_NAMES_ABOVE) std::erase_if(names_, [&](const auto& each) { return each.second <= now; });
  names_[name] = now + milliseconds * 1000;
}

void reservations::reserve_place(const item& gone, std::int64_t milliseconds) {
  if (milliseconds > 0) reserve_name(place_of(gone.owner, gone.parent, gone.name), milliseconds);
}

bool reservations::is_locked(std::int64_t folder) const {
  const std::lock_guard lock(mutex_);
  return holds(folders_, folder);
}

bool reservations::is_reserved(std::int64_t owner, std::int64_t folder, std::string_view name) const {
  const std::lock_guard lock(mutex_);
  return holds(names_, std::string(name)) || holds(names_, place_of(owner, folder, name));
}

void reservations::clear() {
  const std::lock_guard lock(mutex_);
  folders_.clear();
  names_.clear();
}

}  // namespace tarvex::emulator
