#include "api/store_file.h"

#include "api/access.h"
#include "api/call_check.h"

namespace tarvex::emulator {
namespace {

/// Enters a version and gives the content its lasting name.
std::int64_t add_version(const call& of, std::int64_t owner, std::int64_t file, const file_bytes& bytes) {
  const std::int64_t id = of.box.data.next_number("versions");
  of.box.versions.add({id, file, bytes.size, bytes.sha1, std::to_string(id)}, of.now());
  of.box.users.add_used(owner, bytes.size);
  of.box.contents.rename(bytes.draft, std::to_string(id));
  of.box.recent.hold_back(id, of.set.content_pending_ms);
  return id;
}

}  // namespace

file_target store_target(const call& of, const json_t* attributes) {
  file_target target;
  call_check_members(attributes, "name parent size content_created_at content_modified_at");
  const auto name = json_text_at(attributes, "name");
  require(name.has_value(), "'name' is required");
  target.name = *name;
  call_check_name(target.name);
  target.folder = call_parent(of, attributes).id;
  target.content_created_at = call_time(attributes, "content_created_at");
  target.content_modified_at = call_time(attributes, "content_modified_at");
  return target;
}

void store_check(const call& of, const file_target& target, std::int64_t size) {
  call_check_unlocked(of, target.folder);
  call_check_free(of, target.folder, target.name, nullptr, conflict_place::UPLOAD);
  call_check_quota(of, size);
}

item store_file(const call& of, const file_target& target, const file_bytes& bytes) {
  store_check(of, target, bytes.size);
  const std::int64_t now = of.now();
  item made{
      .owner = access_owner(of, target.folder), .type = item_type::FILE, .parent = target.folder, .name = target.name};
  made.size = bytes.size;
  made.sha1 = bytes.sha1;
  made.created_at = made.modified_at = now;
  // A file of which only one time is known cannot be younger than its last change.
  made.content_created_at = target.content_created_at.value_or(target.content_modified_at.value_or(now));
  made.content_modified_at = target.content_modified_at.value_or(now);
  // The version names its file, so the number is taken before the item is made.
  made.id = of.box.data.next_number("files");
  made.version = add_version(of, made.owner, made.id, bytes);
  made = of.box.items.create(std::move(made));
  of.box.recent.hide(made, std::nullopt, of.set.listing_lag_ms);
  return made;
}

item store_version(const call& of, const item& file, const file_target& target, const file_bytes& bytes) {
  call_check_writable(of, file);
  call_check_match(of, file);
  call_check_quota(of, bytes.size);
  item changed = file;
  // A new version may come under a new name.
  if (!target.name.empty() && target.name != file.name) {
    call_check_free(of, file.parent, target.name, &file, conflict_place::UPLOAD);
    changed.name = target.name;
  }
  const std::int64_t now = of.now();
  changed.size = bytes.size;
  changed.sha1 = bytes.sha1;
  changed.version = add_version(of, file.owner, file.id, bytes);
  changed.modified_at = now;
  changed.content_created_at = target.content_created_at.value_or(file.content_created_at);
  changed.content_modified_at = target.content_modified_at.value_or(now);
  ++changed.etag;
  of.box.items.update(file, changed);
  of.box.recent.hide(changed, file, of.set.listing_lag_ms);
  return changed;
}

}  // namespace tarvex::emulator
