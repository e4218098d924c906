#include "api/item_view.h"

#include "api/access.h"
#include "api/metadata.h"
#include "api/metadata_template.h"
#include "base/text.h"

#include <algorithm>

namespace tarvex::emulator {
namespace {

constexpr std::int64_t CONTENTS_LIMIT = 100;
constexpr std::string_view METADATA_PREFIX = "metadata.";

}  // namespace

json_ptr item_order_json() {
  return json_ptr(
      json_pack("[{s:s,s:s},{s:s,s:s}]", "by", "type", "direction", "ASC", "by", "name", "direction", "ASC"));
}

json_ptr user_mini_json(const user& shown) {
  json_ptr object(json_object());
  json_put(object.get(), "type", "user");
  json_put(object.get(), "id", std::to_string(shown.id));
  json_put(object.get(), "name", shown.name);
  json_put(object.get(), "login", shown.login());
  return object;
}

item_view::item_view(const call& of) : of_(of) {
  const auto asked = of.in.parameter("fields");
  if (!asked || asked->empty()) return;
  has_fields_ = true;
  const auto names = split(*asked, ',');
  for (const item_field& candidate : item_fields()) {
    const bool is_named = std::find(names.begin(), names.end(), candidate.name) != names.end();
    if (is_named || candidate.from == item_field::shown::ALWAYS) fields_.push_back(&candidate);
  }
  for (const std::string_view name : names) {
    if (name.starts_with(METADATA_PREFIX)) templates_.emplace_back(name.substr(METADATA_PREFIX.size()));
  }
}

json_ptr item_view::single(const item& subject) {
  return has_fields_ ? asked(subject) : whole_set(subject, true);
}

json_ptr item_view::listed(const item& subject) {
  return has_fields_ ? asked(subject) : mini(subject);
}

json_ptr item_view::mini(const item& subject) {
  return whole_set(subject, false);
}

json_ptr item_view::with_parent(const item& subject) {
  json_ptr object = mini(subject);
  json_put(object.get(), "parent", parent_of(subject));
  return object;
}

json_ptr item_view::entries_of_one(const item& subject) {
  json_ptr entries(json_array());
  json_add(entries.get(), single(subject));
  json_ptr list(json_object());
  json_put(list.get(), "total_count", 1);
  json_put(list.get(), "entries", std::move(entries));
  return list;
}

json_ptr item_view::whole_set(const item& subject, bool standard) {
  using enum item_field::shown;
  json_ptr object(json_object());
  for (const item_field& each : item_fields()) {
    const bool in_set = each.from == ALWAYS || each.from == MINI || (standard && each.from == STANDARD);
    if (in_set && each.fits(subject)) json_put(object.get(), each.name, each.make(*this, subject));
  }
  return object;
}

json_ptr item_view::asked(const item& subject) {
  json_ptr object(json_object());
  for (const item_field* each : fields_) {
    if (each->fits(subject)) json_put(object.get(), each->name, each->make(*this, subject));
  }
  // An item without the instance that was asked for has "metadata": null, not an empty object.
  if (!templates_.empty()) json_put(object.get(), "metadata", metadata_of(subject));
  return object;
}

// The entries of a listing have one parent, so it is written once and shared by reference.
json_ptr item_view::parent_of(const item& subject) {
  if (subject.parent == NO_PARENT) return json_ptr(json_null());
  if (parent_id_ != subject.parent) {
    auto found = of_.box.items.find(subject.owner, item_type::FOLDER, subject.parent);
    // What somebody was invited to stands in the own root, whatever is above it at its owner's.
    if (found && access_rights(of_, *found) == 0) found = of_.box.items.find(of_.me.id, item_type::FOLDER, ROOT_ID);
    parent_ = found ? mini(*found) : json_ptr(json_null());
    parent_id_ = subject.parent;
  }
  return json_ptr(json_incref(parent_.get()));
}

json_ptr item_view::path_of(const item& subject) {
  json_ptr entries(json_array());
  // What is in the trash shows the pseudo-folder 1 in place of its path.
  if (subject.trashed == item_trash::ACTIVE) {
    for (const item& folder : of_.box.items.ancestors(subject)) {
      if (folder.is_root() || access_rights(of_, folder) != 0) json_add(entries.get(), mini(folder));
    }
  } else {
    json_ptr trash(
        json_pack("{s:s,s:s,s:n,s:n,s:s}", "type", "folder", "id", "1", "sequence_id", "etag", "name", "Trash"));
    json_add(entries.get(), std::move(trash));
  }
  json_ptr path(json_object());
  json_put(path.get(), "total_count", static_cast<std::int64_t>(json_array_size(entries.get())));
  json_put(path.get(), "entries", std::move(entries));
  return path;
}

json_ptr item_view::contents_of(const item& subject) {
  json_ptr entries(json_array());
  for (const item& each : of_.box.items.list_from(subject.owner, subject.id, 0, CONTENTS_LIMIT, "", false)) {
    json_add(entries.get(), mini(each));
  }
  json_ptr list(json_object());
  json_put(list.get(), "total_count", of_.box.items.count(subject.owner, subject.id));
  json_put(list.get(), "entries", std::move(entries));
  json_put(list.get(), "offset", 0);
  json_put(list.get(), "limit", CONTENTS_LIMIT);
  json_put(list.get(), "order", item_order_json());
  return list;
}

json_ptr item_view::metadata_of(const item& subject) {
  json_ptr scopes(json_object());
  for (const std::string& wanted : templates_) {
    const auto dot = wanted.find('.');
    const auto scope = metadata_scope(wanted.substr(0, dot));
    if (dot == std::string::npos || !scope) continue;
    const std::string key = wanted.substr(dot + 1);
    json_ptr instance = metadata_json(of_, subject, *scope + "." + key);
    if (!instance) continue;
    json_ptr held(json_incref(json_object_get(scopes.get(), scope->c_str())));
    if (!held) held.reset(json_object());
    json_put(held.get(), key.c_str(), std::move(instance));
    json_put(scopes.get(), scope->c_str(), std::move(held));
  }
  return json_object_size(scopes.get()) > 0 ? std::move(scopes) : json_ptr(json_null());
}

json_ptr item_view::user_json() const {
  return user_mini_json(of_.me);
}

json_ptr item_view::owner_json(const item& subject) const {
  if (subject.owner == of_.me.id) return user_json();
  const auto owner = of_.box.users.find(subject.owner);
  return owner ? user_mini_json(*owner) : json_ptr(json_null());
}

}  // namespace tarvex::emulator
