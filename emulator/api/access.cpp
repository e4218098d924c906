#include "api/access.h"

#include "api/collaboration.h"

#include <utility>

namespace tarvex::emulator {
namespace {

constexpr std::pair<std::string_view, unsigned> ROLE_ROWS[] = {
    {"editor", MAY_ALL},
    {"co-owner", MAY_ALL},
    {"viewer uploader", MAY_SEE | MAY_DOWNLOAD | MAY_UPLOAD},
    {"previewer uploader", MAY_SEE | MAY_UPLOAD},
    {"viewer", MAY_SEE | MAY_DOWNLOAD},
    {"previewer", MAY_SEE},
    {"uploader", MAY_SEE | MAY_UPLOAD},
};

}  // namespace

unsigned access_of_role(std::string_view role) {
  for (const auto& [name, rights] : ROLE_ROWS) {
    if (name == role) return rights;
  }
  return 0;
}

namespace {

unsigned unlimited_rights(const call& of, const item& subject) {
  if (subject.owner == of.me.id) return MAY_ALL;
  unsigned rights = 0;
  auto levels = of.box.items.ancestors(subject);
  levels.push_back(subject);
  for (const item& level : levels) {
    for (const record& each : collaborations_on(of, level)) {
      if (json_number_at(each.value.get(), "user") != of.me.id) continue;
      rights |= access_of_role(json_text_at(each.value.get(), "role").value_or(""));
    }
  }
  return rights;
}

/// Whether an item is the one that a token is for, or lies below it.
bool is_in_reach(const call& of, const item& subject) {
  const std::string& resource = of.limit->resource;
  if (resource.empty() || resource == item_typed_id(subject.type, subject.id)) return true;
  if (resource == item_typed_id(item_type::FOLDER, ROOT_ID)) return subject.owner == of.me.id;
  const auto top = of.box.items.find_typed(resource);
  return top && top->is_folder() && top->owner == subject.owner &&
         of.box.items.is_below(top->owner, subject.parent, top->id);
}

}  // namespace

unsigned access_rights(const call& of, const item& subject) {
  const unsigned rights = unlimited_rights(of, subject);
  if (!of.limit) return rights;
  return is_in_reach(of, subject) ? rights & of.limit->rights : 0;
}

void access_require(const call& of, const item& subject, access_right right) {
  if (of.limit && (of.limit->rights & right) == 0) throw box_problem("insufficient_scope");
  if ((access_rights(of, subject) & right) == 0) throw box_problem("access_denied_insufficient_permissions");
}

std::int64_t access_owner(const call& of, std::int64_t folder) {
  const auto found = of.box.items.find_typed(item_typed_id(item_type::FOLDER, folder));
  return found ? found->owner : of.me.id;
}

std::vector<item> access_invited(const call& of) {
  std::vector<item> found;
  for (const record& each : of.box.records.list(COLLABORATION_KIND)) {
    if (json_number_at(each.value.get(), "user") != of.me.id) continue;
    auto invited = of.box.items.find_typed(each.subject);
    if (invited && invited->trashed == item_trash::ACTIVE) found.push_back(std::move(*invited));
  }
  return found;
}

}  // namespace tarvex::emulator
