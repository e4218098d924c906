#include "api/user.h"

#include "base/text.h"
#include "base/times.h"

#include <algorithm>

namespace tarvex::emulator {
namespace {

constexpr std::string_view ZONE = "America/Los_Angeles";

/// The members of a user in Box's order; with `fields`, `type`, `id` and those asked for.
json_ptr user_json(const call& of) {
  json_ptr me(json_object());
  const std::string created = time_text(of.me.created_at, of.set.zone_offset_minutes);
  json_put(me.get(), "type", "user");
  json_put(me.get(), "id", std::to_string(of.me.id));
  json_put(me.get(), "name", of.me.name);
  json_put(me.get(), "login", of.me.login());
  json_put(me.get(), "created_at", created);
  json_put(me.get(), "modified_at", created);
  json_put(me.get(), "language", "en");
  json_put(me.get(), "timezone", ZONE);
  json_put(me.get(), "space_amount", of.set.space_amount);
  json_put(me.get(), "space_used", of.me.used);
  json_put(me.get(), "max_upload_size", of.set.max_upload_size);
  json_put(me.get(), "status", "active");
  for (const char* empty : {"job_title", "phone", "address"}) json_put(me.get(), empty, "");
  json_put(me.get(), "avatar_url", of.origin({}) + "/api/avatar/large/" + std::to_string(of.me.id));
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

}  // namespace

response user_me(call& of) {
  const json_ptr me = user_json(of);
  const auto fields = of.in.parameter("fields");
  if (fields && !fields->empty()) keep_asked(me.get(), *fields);
  return response_json(200, me.get());
}

}  // namespace tarvex::emulator
