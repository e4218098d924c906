#include "api/call_check.h"

#include "api/access.h"
#include "api/item_lock.h"
#include "api/item_view.h"
#include "base/names.h"

#include <string>

namespace tarvex::emulator {
namespace {

const std::string& conflict_form(const settings& set, conflict_place place) {
  if (place == conflict_place::UPLOAD) return set.conflict_on_upload;
  return place == conflict_place::CREATE ? set.conflict_on_create : set.conflict_on_update;
}

/// Box names the item in the way as an object, as an array or not at all, depending on the call.
problem conflict_problem(const call& of, const item& taken, conflict_place place) {
  const std::string& form = conflict_form(of.set, place);
  if (form == "missing") return box_problem("item_name_in_use");
  json_ptr context(json_object());
  json_ptr conflicts = item_view(of).mini(taken);
  if (form == "array") {
    json_ptr list(json_array());
    json_add(list.get(), std::move(conflicts));
    conflicts = std::move(list);
  }
  json_put(context.get(), "conflicts", std::move(conflicts));
  return box_problem("item_name_in_use", {}, std::move(context));
}

}  // namespace

void call_check_name(std::string_view name) {
  if (const auto refusal = name_refusal(name); !refusal.empty()) throw box_problem(refusal);
}

void call_check_writable(const call& of, const item& file) {
  access_require(of, file, MAY_EDIT);
  const auto lock = lock_of(of, file);
  if (lock && json_number_at(lock.get(), "owner") != of.me.id) throw box_problem("access_denied_item_locked");
  call_check_unlocked(of, file.parent);
}

void call_check_match(const call& of, const item& subject) {
  // Box sends its etags bare and takes them with quotes, too.
  const auto wanted = of.in.header("If-Match");
  if (wanted && *wanted != std::to_string(subject.etag) && *wanted != "\"" + std::to_string(subject.etag) + "\"") {
    throw box_problem("precondition_failed");
  }
}

void call_check_quota(const call& of, std::int64_t size) {
  if (size > of.set.max_upload_size) throw box_problem("file_size_limit_exceeded");
  // Asked again, since `me` is from the beginning of the request and an upload takes its time.
  const auto owner = of.box.users.find(of.me.id);
  if (!owner || size > of.set.space_amount - owner->used) throw box_problem("storage_limit_exceeded");
}

void call_check_free(const call& of, std::int64_t folder, std::string_view name, const item* self,
                     conflict_place place) {
  const std::int64_t owner = access_owner(of, folder);
  if (of.box.reserved.is_reserved(owner, folder, name)) throw box_problem("name_temporarily_reserved");
  const auto taken = of.box.items.find_named(owner, folder, name);
  // The item itself is in nobody's way: a rename that only changes case is fine.
  if (!taken || (self != nullptr && taken->type == self->type && taken->id == self->id)) return;
  throw conflict_problem(of, *taken, place);
}

// A running move or deletion locks a folder with all below it.
void call_check_unlocked(const call& of, std::int64_t folder) {
  const std::int64_t owner = access_owner(of, folder);
  for (std::int64_t at = folder; at != NO_PARENT;) {
    if (of.box.reserved.is_locked(at)) throw box_problem("operation_blocked_temporary");
    const auto found = of.box.items.find(owner, item_type::FOLDER, at);
    at = found ? found->parent : NO_PARENT;
  }
}

}  // namespace tarvex::emulator
