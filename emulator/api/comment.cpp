#include "api/comment.h"

#include "api/item_view.h"
#include "api/page.h"
#include "base/times.h"

namespace tarvex::emulator {
namespace {

constexpr std::string_view COMMENT_KIND = "comment";

json_ptr comment_json(const call& of, const record& shown) {
  const json_t* value = shown.value.get();
  const std::string at = time_text(json_number_at(value, "created_at").value_or(0), of.set.zone_offset_minutes);
  const auto author = of.box.users.find(shown.owner);
  json_ptr object(json_object());
  json_put(object.get(), "type", "comment");
  json_put(object.get(), "id", std::to_string(shown.id));
  json_put(object.get(), "is_reply_comment", json_ptr(json_boolean(json_object_get(value, "reply_to") != nullptr)));
  json_put(object.get(), "message", json_text_at(value, "message").value_or(""));
  const auto tagged = json_text_at(value, "tagged_message");
  if (tagged) json_put(object.get(), "tagged_message", *tagged);
  json_put(object.get(), "created_by", author ? user_mini_json(*author) : json_ptr(json_null()));
  json_put(object.get(), "created_at", at);
  json_put(object.get(), "modified_at", at);
  const auto file = of.box.items.find_typed(shown.subject);
  json_put(object.get(), "item", file ? item_view(of).mini(*file) : json_ptr(json_null()));
  return object;
}

/// A comment on a file that the caller sees. Throws 404.
record comment_named(const call& of, std::int64_t id) {
  auto found = of.box.records.find(COMMENT_KIND, id);
  if (!found) throw not_found_problem("comment", std::to_string(id));
  const auto file = of.box.items.find_typed(found->subject);
  if (!file) throw not_found_problem("comment", std::to_string(id));
  (void)call_item(of, item_type::FILE, file->id, "comment");  // for its refusals
  return std::move(*found);
}

void require_author(const call& of, const record& named) {
  if (named.owner != of.me.id) throw box_problem("access_denied_insufficient_permissions");
}

/// The file that a new comment is about, and the comment it answers, if any. Throws 400 and 404.
std::string commented_file(const call& of, const json_t* about, json_t* value) {
  const auto id = json_number_at(about, "id");
  const auto type = json_text_at(about, "type").value_or("");
  require(id && (type == "file" || type == "comment"), "'item' needs the type (file or comment) and the id");
  if (type == "file") return item_typed_id(item_type::FILE, call_item(of, item_type::FILE, *id, "item").id);
  json_put(value, "reply_to", *id);
  return comment_named(of, *id).subject;
}

void take_message(const json_t* body, json_t* value) {
  const auto plain = json_text_at(body, "message");
  const auto tagged = json_text_at(body, "tagged_message");
  require(plain || tagged, "'message' is required");
  json_put(value, "message", plain ? *plain : *tagged);
  if (tagged) json_put(value, "tagged_message", *tagged);
}

}  // namespace

response comment_create(call& of) {
  const json_ptr body = of.body_object();
  call_check_members(body.get(), "message tagged_message item");
  transaction hold(of.box.data);
  json_ptr value(json_object());
  const std::string subject = commented_file(of, json_object_get(body.get(), "item"), value.get());
  take_message(body.get(), value.get());
  json_put(value.get(), "created_at", of.now());
  const record made =
      of.box.records.create(COMMENT_KIND, {.owner = of.me.id, .subject = subject, .value = std::move(value)});
  response answer = response_json(201, comment_json(of, made).get());
  hold.commit();
  return answer;
}

response comment_get(call& of) {
  transaction hold(of.box.data);
  return response_json(200, comment_json(of, comment_named(of, of.id(0))).get());
}

response comment_update(call& of) {
  const json_ptr body = of.body_object();
  call_check_members(body.get(), "message tagged_message");
  transaction hold(of.box.data);
  const record changed = comment_named(of, of.id(0));
  require_author(of, changed);
  take_message(body.get(), changed.value.get());
  of.box.records.save(changed);
  response answer = response_json(200, comment_json(of, changed).get());
  hold.commit();
  return answer;
}

response comment_delete(call& of) {
  transaction hold(of.box.data);
  const record gone = comment_named(of, of.id(0));
  require_author(of, gone);
  of.box.records.remove(gone.id);
  hold.commit();
  return response_empty(204);
}

response comments_of_file(call& of) {
  transaction hold(of.box.data);
  const item file = call_item(of, item_type::FILE, of.id(0), "item");
  const auto all = of.box.records.list(COMMENT_KIND, item_typed_id(file.type, file.id));
  return page_answer(of, all, [&](const record& each) { return comment_json(of, each); });
}

}  // namespace tarvex::emulator
