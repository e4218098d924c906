#include "api/item_trash.h"

#include "api/call_check.h"
#include "api/event.h"
#include "api/item_view.h"

namespace tarvex::emulator {
namespace {

constexpr std::size_t MAX_BODY_BYTES = 64UL * 1024;

item trashed_item(const call& of, item_type type) {
  auto found = of.box.items.find(of.me.id, type, of.id(0));
  if (!found) throw not_found_problem("item", item_typed_id(type, of.id(0)));
  if (found->trashed == item_trash::ACTIVE) throw box_problem("not_trashed");
  return *found;
}

}  // namespace

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
  // A restore without a body puts the item back where it was, under its name.
  const std::string text = of.body_text(MAX_BODY_BYTES);
  of.note_body(text);
  const json_ptr body = text.empty() ? json_ptr(json_object()) : json_parse(text);
  require(json_is_object(body.get()), "The request body must be a JSON object");
  transaction hold(of.box.data);
  item back = trashed_item(of, type);
  back.name = json_text_at(body.get(), "name").value_or(back.name);
  call_check_name(back.name);
  if (json_object_get(body.get(), "parent") != nullptr) back.parent = call_parent(of, body.get()).id;
  (void)call_item(of, item_type::FOLDER, back.parent, "parent");  // for its refusal: the old folder may be gone
  call_check_free(of, back.parent, back.name, nullptr, conflict_place::CREATE);
  of.box.items.restore(back);
  const item shown = call_item(of, type, back.id, "item");
  response answer = response_json(201, item_view(of).single(shown).get());
  event_note(of, "ITEM_UNDELETE_VIA_TRASH", shown);
  hold.commit();
  return answer;
}

}  // namespace tarvex::emulator
