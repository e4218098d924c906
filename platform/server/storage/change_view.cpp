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

/// The count when the folder of `path` was last listed.
std::uint64_t change_view::seen_since(std::string_view path) const {
  const auto listed = listed_.find(path_parent(path));
  return listed == listed_.end() ? opened_ : std::max(opened_, listed->second);
}

bool change_view::addition_unseen(std::string_view path) const {
  return slots_ && !known(change_slot(*slots_, account_, path).added, seen_since(path));
}

void change_view::note_listed(const std::string& folder, std::uint64_t when) {
  if (when == opened_) return;
  // What is forgotten counts as never listed: that costs a listing, not an item.
  if (listed_.size() >= REMEMBERED_MAX) listed_.clear();
  listed_[folder] = when;
}

/// What somebody else has entered, and this session has not seen, must not be hidden by its own: nobody knows both.
void change_view::enter(std::atomic<std::uint64_t>& word, std::uint64_t since, maker by) {
  const std::uint64_t number = ++slots_->count;
  std::uint64_t before = word;
  while (true) {
    const bool mine = by == maker::self && known(before, since);
    const std::uint64_t later = std::max(number, change_stamp::of(before).number);
    if (word.compare_exchange_weak(before, change_stamp{later, mine ? tag_ : change_stamp::NOBODY}.word())) return;
  }
}

void change_view::enter_change(std::string_view path, maker by) {
  if (slots_) enter(change_slot(*slots_, account_, path).changed, opened_, by);
}

void change_view::enter_addition(std::string_view path, maker by) {
  if (slots_) enter(change_slot(*slots_, account_, path).added, seen_since(path), by);
}

}  // namespace tarvex::server
