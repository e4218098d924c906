#include "api/user.h"

#include "api/page.h"
#include "base/text.h"
#include "base/times.h"

#include <algorithm>

namespace tarvex::emulator {
namespace {

constexpr std::string_view ZONE = "America/Los_Angeles";

/// The members of a user in Box's order; with `fields`, `type`, `id` and those asked for.
json_ptr user_json(const call& of, const user& shown) {
  json_ptr me(json_object());
  const std::string created = time_text(shown.created_at, of.set.zone_offset_minutes);
  json_put(me.get(), "type", "user");
  json_put(me.get(), "id", std::to_string(shown.id));
  json_put(me.get(), "name", shown.name);
  json_put(me.get(), "login", shown.login());
  json_put(me.get(), "created_at", created);
  json_put(me.get(), "modified_at", created);
  json_put(me.get(), "language", "en");
  json_put(me.get(), "timezone", ZONE);
  json_put(me.get(), "space_amount", of.set.space_amount);
  json_put(me.get(), "space_used", shown.used);
  json_put(me.get(), "max_upload_size", of.set.max_upload_size);
  json_put(me.get(), "status", "active");
  for (const char* empty : {"job_title", "phone", "address"}) json_put(me.get(), empty, "");
  json_put(me.get(), "avatar_url", of.origin({}) + "/api/avatar/large/" + std::to_string(shown.id));
  json_put(me.get(), "notification_email", json_ptr(json_null()));
  return me;
}

void keep_asked(json_t* object, std::string_view fields) {
  auto names = split(fields, ',');
  names.insert(names.end(), {"type", "id"});
  const char* key = nullptr;
  json_t* value = nullptr;
  void* next = nullptr;
  json_object_foreach_safe(object, next, key, value) {
    if (std::find(names.begin(), names.end(), key) == names.end()) json_object_del(object, key);
  }
}

json_ptr user_shown(const call& of, const user& shown) {
  json_ptr object = user_json(of, shown);
  const auto fields = of.in.parameter("fields");
  if (fields && !fields->empty()) keep_asked(object.get(), *fields);
  return object;
}

}  // namespace

response user_me(call& of) {
  return response_json(200, user_shown(of, of.me).get());
}

response user_get(call& of) {
  transaction hold(of.box.data);
  const auto found = of.box.users.find(of.id(0));
  if (!found) throw not_found_problem("user", of.ids.at(0));
  return response_json(200, user_shown(of, *found).get());
}

response user_list(call& of) {
  const std::string filter = lower(of.in.parameter("filter_term").value_or(""));
  transaction hold(of.box.data);
  auto users = of.box.users.list();
  // As Box has it: what name or login begin with.
  std::erase_if(users, [&](const user& each) {
    return !lower(each.name).starts_with(filter) && !lower(each.login()).starts_with(filter);
  });
  return page_answer(of, users, [&](const user& each) { return user_shown(of, each); });
}

}  // namespace tarvex::emulator
