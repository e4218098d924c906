#include "api/items.h"

#include "api/item_json.h"
#include "base/times.h"

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
  if (before.is_folder() && before.parent != after.parent && of.box.items.is_below(of.me.id, after.parent, before.id)) {
    throw box_problem("cyclical_folder_structure");
  }
  call_check_free(of, after.parent, after.name, &before, conflict_place::UPDATE);
}

void copy_metadata(database& on, const item& from, const item& to) {
  on.run(
      "INSERT INTO metadata(type, item, id, version, value) SELECT type, ?, id, 0, value FROM metadata "
      "WHERE type = ? AND item = ?",
      to.id, static_cast<int>(from.type), from.id);
}

/// Copies a file (sharing its content) or a folder with all below it.
item copy_tree(const call& of, const item& from, std::int64_t parent, const std::string& name) {
  item made = from;
  made.id = 0;
  made.etag = 0;
  made.parent = parent;
  made.name = name;
  made.created_at = made.modified_at = time_now();
  if (from.type == item_type::FILE) {
    auto content = of.box.items.find_version(from.version);
    if (!content) throw box_problem("not_found");
    content->id = made.version = of.box.data.next_number("versions");
    made = of.box.items.create(made);
    content->file = made.id;
    of.box.items.add_version(*content);
    of.box.users.add_used(of.me.id, content->size);
  } else {
    made.size = 0;  // grows with what is put in
    made = of.box.items.create(made);
  }
  copy_metadata(of.box.data, from, made);
  if (!from.is_folder()) return made;
  for (const item& child : of.box.items.list_after(of.me.id, from.id, {}, -1)) {
    (void)copy_tree(of, child, made.id, child.name);
  }
  return made;
}

item trashed_item(const call& of, item_type type) {
  auto found = of.box.items.find(of.me.id, type, of.id(0));
  if (!found) throw not_found_problem("item", item_typed_id(type, of.id(0)));
  if (found->trashed == item_trash::ACTIVE) throw box_problem("not_trashed");
  return *found;
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
  item after = before;
  apply_members(of, body.get(), after);
  const bool only_moved = before.parent != after.parent && same_but_place(before, after);
  if (!only_moved) call_check_match(of, before);
  check_move(of, before, after);
  if (before.parent != after.parent || !same_but_place(before, after)) {
    ++after.etag;
    after.modified_at = time_now();
    of.box.items.update(before, after);
  }
  response answer = response_json(200, item_view(of).single(after).get());
  hold.commit();
  return answer;
}

response item_delete(call& of, item_type type, std::string_view missing) {
  transaction hold(of.box.data);
  const item gone = call_item(of, type, of.id(0), missing);
  if (gone.is_root()) throw box_problem("access_denied_insufficient_permissions");
  call_check_match(of, gone);
  call_check_unlocked(of, gone.is_folder() ? gone.id : gone.parent);
  if (gone.is_folder() && of.in.parameter("recursive") != "true" && of.box.items.count(of.me.id, gone.id) > 0) {
    throw box_problem("folder_not_empty");
  }
  std::vector<std::string> contents;
  if (of.set.trash && type != item_type::WEB_LINK) {
    of.box.items.trash(gone, time_now());
  } else {
    contents = of.box.items.purge(gone);
  }
  hold.commit();
  of.box.contents.remove_all(contents);
  return response_empty(204);
}

response item_copy(call& of, item_type type, std::string_view missing) {
  const json_ptr body = of.body_object();
  transaction hold(of.box.data);
  const item from = call_item(of, type, of.id(0), missing);
  if (from.is_root()) throw box_problem("access_denied_insufficient_permissions");
  const item parent = call_parent(of, body.get());
  const std::string name = json_text_at(body.get(), "name").value_or(from.name);
  call_check_name(name);
  if (from.is_folder() && of.box.items.is_below(of.me.id, parent.id, from.id)) {
    throw box_problem("cyclical_folder_structure");
  }
  call_check_unlocked(of, parent.id);
  call_check_free(of, parent.id, name, nullptr, conflict_place::UPLOAD);
  call_check_quota(of, from.size);
  const item made = copy_tree(of, from, parent.id, name);
  const item shown = call_item(of, type, made.id, missing);
  response answer = response_json(201, item_view(of).single(shown).get());
  hold.commit();
  return answer;
}

response trashed_get(call& of, item_type type) {
  transaction hold(of.box.data);
  return response_json(200, item_view(of).single(trashed_item(of, type)).get());
}

response trashed_purge(call& of, item_type type) {
  transaction hold(of.box.data);
  const auto contents = of.box.items.purge(trashed_item(of, type));
  hold.commit();
  of.box.contents.remove_all(contents);
  return response_empty(204);
}

response trashed_restore(call& of, item_type type) {
  const std::string text = of.body_text(65536);
  of.note_body(text);
  const json_ptr body = text.empty() ? json_ptr(json_object()) : json_parse(text);
  require(json_is_object(body.get()), "The request body must be a JSON object");
  transaction hold(of.box.data);
  item back = trashed_item(of, type);
  back.name = json_text_at(body.get(), "name").value_or(back.name);
  call_check_name(back.name);
  if (json_object_get(body.get(), "parent") != nullptr) back.parent = call_parent(of, body.get()).id;
  (void)call_item(of, item_type::FOLDER, back.parent, "parent");  // for its refusal
  call_check_free(of, back.parent, back.name, nullptr, conflict_place::CREATE);
  of.box.items.restore(back);
  const item shown = call_item(of, type, back.id, "item");
  response answer = response_json(201, item_view(of).single(shown).get());
  hold.commit();
  return answer;
}

}  // namespace tarvex::emulator
