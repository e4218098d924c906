#include "api/collaboration.h"

#include "api/access.h"
#include "api/item_view.h"
#include "api/page.h"
#include "base/times.h"

namespace tarvex::emulator {
namespace {

json_ptr user_or_null(const call& of, std::int64_t id) {
  const auto found = of.box.users.find(id);
  return found ? user_mini_json(*found) : json_ptr(json_null());
}

json_ptr collaboration_json(const call& of, const record& shown) {
  const json_t* value = shown.value.get();
  const std::string at = time_text(json_number_at(value, "created_at").value_or(0), of.set.zone_offset_minutes);
  const auto subject = of.box.items.find_typed(shown.subject);
  json_ptr object(json_object());
  json_put(object.get(), "type", "collaboration");
  json_put(object.get(), "id", std::to_string(shown.id));
  json_put(object.get(), "created_by", user_or_null(of, shown.owner));
  json_put(object.get(), "created_at", at);
  json_put(object.get(), "modified_at", at);
  json_put(object.get(), "expires_at", json_ptr(json_null()));
  json_put(object.get(), "status", "accepted");
  json_put(object.get(), "accessible_by", user_or_null(of, json_number_at(value, "user").value_or(-1)));
  json_put(object.get(), "role", json_text_at(value, "role").value_or(""));
  json_put(object.get(), "acknowledged_at", at);
  json_put(object.get(), "can_view_path", json_ptr(json_false()));
  json_put(object.get(), "item", subject ? item_view(of).mini(*subject) : json_ptr(json_null()));
  return object;
}

/// The user that `accessible_by` names by id or by login. Throws 400 and 404.
user invited_user(const call& of, const json_t* by) {
  call_check_members(by, "type id login");
  require(json_text_at(by, "type").value_or("user") == "user", "This Box has no groups: 'accessible_by' is a user");
  for (const user& each : of.box.users.list()) {
    if (std::to_string(each.id) == json_text_at(by, "id") || each.login() == json_text_at(by, "login")) return each;
  }
  throw not_found_problem("user", json_text_at(by, "login").value_or(json_text_at(by, "id").value_or("")));
}

std::string role_in(const json_t* body) {
  const std::string role = json_text_at(body, "role").value_or("");
  require(access_of_role(role) != 0, "'role' is not one that this Box gives");
  return role;
}

item item_in(const call& of, const json_t* body) {
  const json_t* wanted = json_object_get(body, "item");
  const auto id = json_number_at(wanted, "id");
  const auto type = json_text_at(wanted, "type").value_or("");
  require(id && (type == "file" || type == "folder"), "'item' needs the type (file or folder) and the id");
  return call_item(of, type == "file" ? item_type::FILE : item_type::FOLDER, *id, "item");
}

/// One that the caller takes part in or may manage. Throws 404.
record collaboration_named(const call& of) {
  auto found = of.box.records.find(COLLABORATION_KIND, of.id(0));
  const auto subject = found ? of.box.items.find_typed(found->subject) : std::nullopt;
  if (!subject || access_rights(of, *subject) == 0) throw not_found_problem("collaboration", of.ids.at(0));
  return std::move(*found);
}

void require_manager(const call& of, const record& named) {
  const auto subject = of.box.items.find_typed(named.subject);
  if (subject) access_require(of, *subject, MAY_INVITE);
}

response collaborations_answer(const call& of, item_type type) {
  transaction hold(of.box.data);
  const item subject = call_item(of, type, of.id(0), "item");
  const auto all = collaborations_on(of, subject);
  return page_answer(of, all, [&](const record& each) { return collaboration_json(of, each); });
}

}  // namespace

std::vector<record> collaborations_on(const call& of, const item& subject) {
  return of.box.records.list(COLLABORATION_KIND, item_typed_id(subject.type, subject.id));
}

json_ptr collaboration_roles_json() {
  return json_ptr(json_pack("[s,s,s,s,s,s,s]", "editor", "viewer", "previewer", "uploader", "previewer uploader",
                            "viewer uploader", "co-owner"));
}

response collaboration_create(call& of) {
  const json_ptr body = of.body_object();
  call_check_members(body.get(), "item accessible_by role");
  transaction hold(of.box.data);
  const item subject = item_in(of, body.get());
  access_require(of, subject, MAY_INVITE);
  require(!subject.is_root(), "The root folder cannot be shared");
  const user invited = invited_user(of, json_object_get(body.get(), "accessible_by"));
  bool known = invited.id == subject.owner;
  for (const record& each : collaborations_on(of, subject)) {
    known = known || json_number_at(each.value.get(), "user") == invited.id;
  }
  if (known) throw box_problem("user_already_collaborator");
  json_ptr value(json_object());
  json_put(value.get(), "user", invited.id);
  json_put(value.get(), "role", role_in(body.get()));
  json_put(value.get(), "created_at", of.now());
  const record made = of.box.records.create(
      COLLABORATION_KIND,
      {.owner = of.me.id, .subject = item_typed_id(subject.type, subject.id), .value = std::move(value)});
  response answer = response_json(201, collaboration_json(of, made).get());
  hold.commit();
  return answer;
}

response collaboration_get(call& of) {
  transaction hold(of.box.data);
  return response_json(200, collaboration_json(of, collaboration_named(of)).get());
}

response collaboration_update(call& of) {
  const json_ptr body = of.body_object();
  call_check_members(body.get(), "role");
  transaction hold(of.box.data);
  const record changed = collaboration_named(of);
  require_manager(of, changed);
  json_put(changed.value.get(), "role", role_in(body.get()));
  of.box.records.save(changed);
  response answer = response_json(200, collaboration_json(of, changed).get());
  hold.commit();
  return answer;
}

response collaboration_delete(call& of) {
  transaction hold(of.box.data);
  const record gone = collaboration_named(of);
  // Whoever was invited may leave.
  if (json_number_at(gone.value.get(), "user") != of.me.id) require_manager(of, gone);
  of.box.records.remove(gone.id);
  hold.commit();
  return response_empty(204);
}

response collaborations_pending(call& of) {
  require(of.in.parameter("status") == "pending", "'status' must be pending");
  return page_answer(of, std::vector<int>(), [](int) { return json_ptr(json_null()); });
}

response collaborations_of_file(call& of) {
  return collaborations_answer(of, item_type::FILE);
}
response collaborations_of_folder(call& of) {
  return collaborations_answer(of, item_type::FOLDER);
}

}  // namespace tarvex::emulator
