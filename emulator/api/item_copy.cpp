#include "api/item_copy.h"

#include "api/access.h"
#include "api/call_check.h"
#include "api/event.h"
#include "api/item_view.h"

namespace tarvex::emulator {
namespace {

/// Copies a file (sharing its content) or a folder with all below it.
item copy_tree(const call& of, const item& from, const item& parent, const std::string& name) {
  item made = from;
  made.id = 0;
  made.etag = 0;
  made.owner = parent.owner;
  made.parent = parent.id;
  made.name = name;
  made.created_at = made.modified_at = of.now();
  if (from.type == item_type::FILE) {
    auto content = of.box.versions.find(from.version);
    if (!content) throw box_problem("not_found");
    content->id = made.version = of.box.data.next_number("versions");
    made = of.box.items.create(made);
    content->file = made.id;
    of.box.versions.add(*content, of.now());
    of.box.users.add_used(made.owner, content->size);
  } else {
    made.size = 0;  // grows with what is put in
    made = of.box.items.create(made);
  }
  of.box.recent.hide(made, std::nullopt, of.set.listing_lag_ms);
  of.box.metadata.copy(from, made);
  if (!from.is_folder()) return made;
  for (const item& child : of.box.items.list_after(from.owner, from.id, {}, -1)) {
    (void)copy_tree(of, child, made, child.name);
  }
  return made;
}

}  // namespace

response item_copy(call& of, item_type type, std::string_view missing) {
  const json_ptr body = of.body_object();
  call_check_members(body.get(), "name parent");
  transaction hold(of.box.data);
  const item from = call_item(of, type, of.id(0), missing);
  if (from.is_root()) throw box_problem("access_denied_insufficient_permissions");
  access_require(of, from, MAY_DOWNLOAD);
  const item parent = call_parent(of, body.get());
  const std::string name = json_text_at(body.get(), "name").value_or(from.name);
  call_check_name(name);
  if (from.is_folder() && of.box.items.is_below(parent.owner, parent.id, from.id)) {
    throw box_problem("cyclical_folder_structure");
  }
  call_check_unlocked(of, parent.id);
  call_check_free(of, parent.id, name, nullptr, conflict_place::UPLOAD);
  call_check_quota(of, from.size);
  const item made = copy_tree(of, from, parent, name);
  // Read again: the size of a copied folder has grown with what was put in.
  const item shown = call_item(of, type, made.id, missing);
  response answer = response_json(201, item_view(of).single(shown).get());
  event_note(of, "ITEM_COPY", shown);
  hold.commit();
  return answer;
}

}  // namespace tarvex::emulator
