#include "storage/change_view.h"

#include "ftp/path.h"
#include "storage/change_slots.h"

#include <algorithm>

namespace tarvex::server {

namespace {

constexpr std::size_t REMEMBERED_MAX = 10000;

}  // namespace

void change_view::open(change_slots* slots, std::string_view account) {
  slots_ = slots;
  account_ = account;
  if (slots_ && tag_ == 0) tag_ = change_tag(*slots_);
  opened_ = now();
  listed_.clear();
}

std::uint64_t change_view::now() const {
  return slots_ ? slots_->count.load() : 0;
}

bool change_view::known(std::uint64_t word, std::uint64_t since) const {
  const change_stamp last = change_stamp::of(word);
  return last.number <= since || last.tag == tag_;
}

bool change_view::stale(std::string_view path) const {
  if (!slots_) return false;
  for (std::string item(path); item.size() > 1; item = path_parent(item))
    if (!known(change_slot(*slots_, account_, item).changed, opened_)) return true;
  return false;
}

bool change_view::addition_unseen(std::string_view path) const {
  if (!slots_) return false;
  const auto listed = listed_.find(path_parent(path));
  const std::uint64_t since = listed == listed_.end() ? opened_ : std::max(opened_, listed->second);
  return !known(change_slot(*slots_, account_, path).added, since);
}

void change_view::note_listed(const std::string& folder, std::uint64_t when) {
  if (when == opened_) return;
  // What is forgotten counts as never listed: that costs a listing, not an item.
  if (listed_.size() >= REMEMBERED_MAX) listed_.clear();
  listed_[folder] = when;
}

std::uint64_t change_view::stamp(maker by) {
  return change_stamp{++slots_->count, by == maker::self ? tag_ : change_stamp::NOBODY}.word();
}

void change_view::enter_change(std::string_view path, maker by) {
  if (slots_) change_slot(*slots_, account_, path).changed = stamp(by);
}

void change_view::enter_addition(std::string_view path, maker by) {
  if (slots_) change_slot(*slots_, account_, path).added = stamp(by);
}

}  // namespace tarvex::server
