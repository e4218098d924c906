#include "api/web_link.h"

#include "api/call_check.h"
#include "api/item.h"
#include "api/item_view.h"

namespace tarvex::emulator {

response web_link_create(call& of) {
  const json_ptr body = of.body_object();
  call_check_members(body.get(), "url name description parent");
  const auto url = json_text_at(body.get(), "url");
  require(url && (url->starts_with("http://") || url->starts_with("https://")), "'url' must be an absolute URL");
  item made{.owner = of.me.id, .type = item_type::WEB_LINK, .url = *url};
  made.name = json_text_at(body.get(), "name").value_or(url->substr(url->find("//") + 2));
  call_check_name(made.name);
  made.description = json_text_at(body.get(), "description").value_or("");
  made.created_at = made.modified_at = made.content_created_at = made.content_modified_at = of.now();
  transaction hold(of.box.data);
  const item parent = call_parent(of, body.get());
  made.owner = parent.owner;
  made.parent = parent.id;
  call_check_free(of, made.parent, made.name, nullptr, conflict_place::CREATE);
  made = of.box.items.create(std::move(made));
  of.box.recent.hide(made, std::nullopt, of.set.listing_lag_ms);
  response answer = response_json(201, item_view(of).single(made).get());
  hold.commit();
  return answer;
}

response web_link_get(call& of) {
  return item_get(of, item_type::WEB_LINK, "item");
}
response web_link_update(call& of) {
  return item_update(of, item_type::WEB_LINK, "item");
}
response web_link_delete(call& of) {
  return item_delete(of, item_type::WEB_LINK, "item");
}

}  // namespace tarvex::emulator
