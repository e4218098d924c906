#include "api/item.h"

#include "api/access.h"
#include "api/call_check.h"
#include "api/event.h"
#include "api/item_member.h"
#include "api/item_view.h"

namespace tarvex::emulator {
namespace {

/// Puts the members of the body into `changed`; what is absent stays.
void apply_members(const call& of, const json_t* body, item& changed) {
  if (json_object_get(body, "name") != nullptr) {
    changed.name = json_text_at(body, "name").value_or("");
    call_check_name(changed.name);
  }
  const json_t* parent = json_object_get(body, "parent");
  if (parent != nullptr && !json_is_null(parent)) changed.parent = call_parent(of, body).id;
  changed.description = json_text_at(body, "description").value_or(changed.description);
  changed.url = json_text_at(body, "url").value_or(changed.url);
  changed.content_created_at = call_time(body, "content_created_at").value_or(changed.content_created_at);
  changed.content_modified_at = call_time(body, "content_modified_at").value_or(changed.content_modified_at);
}

bool same_but_place(const item& a, const item& b) {
  return a.name == b.name && a.description == b.description && a.url == b.url &&
         a.content_created_at == b.content_created_at && a.content_modified_at == b.content_modified_at;
}

void check_move(const call& of, const item& before, const item& after) {
  if (before.parent == after.parent && before.name == after.name) return;
  call_check_unlocked(of, before.parent);
  call_check_unlocked(of, after.parent);
  // What a folder's owner keeps in it stays the owner's: nothing is given away by a move.
  if (access_owner(of, after.parent) != before.owner) throw box_problem("access_denied_insufficient_permissions");
  if (before.is_folder() && before.parent != after.parent &&
      of.box.items.is_below(before.owner, after.parent, before.id)) {
    throw box_problem("cyclical_folder_structure");
  }
  call_check_free(of, after.parent, after.name, &before, conflict_place::UPDATE);
}

std::string_view change_type(const item& before, const item& after) {
  if (before.parent != after.parent) return "ITEM_MOVE";
  return before.name != after.name ? "ITEM_RENAME" : "ITEM_MODIFY";
}

}  // namespace

response item_get(call& of, item_type type, std::string_view missing) {
  transaction hold(of.box.data);
  const item found = call_item(of, type, of.id(0), missing);
  if (auto unchanged = call_not_modified(of, found)) return std::move(*unchanged);
  return response_json(200, item_view(of).single(found).get());
}

response item_update(call& of, item_type type, std::string_view missing) {
  const json_ptr body = of.body_object();
  transaction hold(of.box.data);
  const item before = call_item(of, type, of.id(0), missing);
  if (before.is_root()) throw box_problem("access_denied_insufficient_permissions");
  access_require(of, before, MAY_EDIT);
  item after = before;
  apply_members(of, body.get(), after);
  // Box leaves If-Match out of account for a move alone.
  const bool only_moved = before.parent != after.parent && same_but_place(before, after);
  if (!only_moved) call_check_match(of, before);
  if (type == item_type::FILE) call_check_writable(of, before);
  check_move(of, before, after);
  const bool has_extras = item_members_apply(of, body.get(), before);
  // The present name or parent sent again is fine, and changes neither etag nor times.
  if (has_extras || before.parent != after.parent || !same_but_place(before, after)) {
    ++after.etag;
    after.modified_at = of.now();
    of.box.items.update(before, after);
    event_note(of, change_type(before, after), after);
  }
  response answer = response_json(200, item_view(of).single(after).get());
  hold.commit();
  return answer;
}

response item_delete(call& of, item_type type, std::string_view missing) {
  transaction hold(of.box.data);
  const item gone = call_item(of, type, of.id(0), missing);
  if (gone.is_root()) throw box_problem("access_denied_insufficient_permissions");
  access_require(of, gone, MAY_EDIT);
  call_check_match(of, gone);
  if (type == item_type::FILE) call_check_writable(of, gone);
  call_check_unlocked(of, gone.is_folder() ? gone.id : gone.parent);
  if (gone.is_folder() && of.in.parameter("recursive") != "true" && of.box.items.count(gone.owner, gone.id) > 0) {
    throw box_problem("folder_not_empty");
  }
  std::vector<std::string> contents;
  // Web links do not go through the trash here.
  if (of.set.trash && type != item_type::WEB_LINK) {
    of.box.items.trash(gone, of.now());
  } else {
    contents = of.box.items.purge(gone);
  }
  event_note(of, "ITEM_TRASH", gone);
  hold.commit();
  of.box.reserved.reserve_place(gone, of.set.name_reserved_ms);
  of.box.contents.remove_all(contents);
  return response_empty(204);
}

}  // namespace tarvex::emulator
