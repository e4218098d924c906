#include "api/item_lock.h"

#include "api/call_check.h"
#include "api/item_view.h"
#include "base/times.h"

namespace tarvex::emulator {
namespace {

constexpr std::string_view LOCK_KIND = "lock";

}  // namespace

json_ptr lock_of(const call& of, const item& file) {
  if (file.type != item_type::FILE) return nullptr;
  auto held = of.box.records.first(LOCK_KIND, item_typed_id(file.type, file.id));
  if (!held) return nullptr;
  const std::int64_t until = json_number_at(held->value.get(), "until").value_or(0);
  if (until != 0 && until <= of.now()) return nullptr;
  return std::move(held->value);
}

json_ptr lock_json(const call& of, const item& file) {
  json_ptr lock = lock_of(of, file);
  if (!lock) return json_ptr(json_null());
  json_object_del(lock.get(), "owner");
  json_object_del(lock.get(), "until");
  return lock;
}

void lock_apply(const call& of, const item& file, const json_t* wanted) {
  const std::string subject = item_typed_id(file.type, file.id);
  call_check_writable(of, file);
  for (const record& old : of.box.records.list(LOCK_KIND, subject)) of.box.records.remove(old.id);
  if (json_is_null(wanted)) return;
  require(json_is_object(wanted), "'lock' must be an object or null");
  const std::int64_t until = call_time(wanted, "expires_at").value_or(0);
  json_ptr lock(json_object());
  json_put(lock.get(), "type", "lock");
  json_put(lock.get(), "id", std::to_string(of.box.data.next_number("locks")));
  json_put(lock.get(), "created_by", item_view(of).user_json());
  json_put(lock.get(), "created_at", time_text(of.now(), of.set.zone_offset_minutes));
  json_put(lock.get(), "expired_at",
           until == 0 ? json_ptr(json_null()) : json_string_of(time_text(until, of.set.zone_offset_minutes)));
  json_put(lock.get(), "is_download_prevented",
           json_ptr(json_boolean(json_is_true(json_object_get(wanted, "is_download_prevented")))));
  json_put(lock.get(), "owner", of.me.id);
  json_put(lock.get(), "until", until);
  (void)of.box.records.create(LOCK_KIND, {.owner = of.me.id, .subject = subject, .value = std::move(lock)});
}

}  // namespace tarvex::emulator
