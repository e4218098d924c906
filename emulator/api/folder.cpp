#include "api/folder.h"

#include "api/call_check.h"
#include "api/event.h"
#include "api/item.h"
#include "api/item_copy.h"
#include "api/item_view.h"

namespace tarvex::emulator {

response folder_create(call& of) {
  const json_ptr body = of.body_object();
  call_check_members(body.get(), "name parent");
  const auto name = json_text_at(body.get(), "name");
  require(name.has_value(), "'name' is required");
  call_check_name(*name);
  transaction hold(of.box.data);
  const item parent = call_parent(of, body.get());
  call_check_unlocked(of, parent.id);
  call_check_free(of, parent.id, *name, nullptr, conflict_place::CREATE);
  const std::int64_t now = of.now();
  const item made = of.box.items.create({.owner = parent.owner,
                                         .type = item_type::FOLDER,
                                         .parent = parent.id,
                                         .name = *name,
                                         .created_at = now,
                                         .modified_at = now,
                                         .content_created_at = now,
                                         .content_modified_at = now});
  of.box.recent.hide(made, std::nullopt, of.set.listing_lag_ms);
  response answer = response_json(201, item_view(of).single(made).get());
  event_note(of, "ITEM_CREATE", made);
  hold.commit();
  return answer;
}

response folder_get(call& of) {
  return item_get(of, item_type::FOLDER, "folder");
}
response folder_update(call& of) {
  return item_update(of, item_type::FOLDER, "folder");
}
response folder_delete(call& of) {
  return item_delete(of, item_type::FOLDER, "folder");
}
response folder_copy(call& of) {
  return item_copy(of, item_type::FOLDER, "folder");
}

}  // namespace tarvex::emulator
