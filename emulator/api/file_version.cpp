#include "api/file_version.h"

#include "api/call_check.h"
#include "api/item_view.h"
#include "api/page.h"
#include "base/times.h"

#include <algorithm>

namespace tarvex::emulator {
namespace {

constexpr std::int64_t VERSION_TRASH_LIFE_S = 30L * 86400;

item file_of(const call& of) {
  return call_item(of, item_type::FILE, of.id(0), "item");
}

json_ptr time_or_null(const call& of, std::int64_t seconds) {
  return seconds == 0 ? json_ptr(json_null()) : json_string_of(time_text(seconds, of.set.zone_offset_minutes));
}

json_ptr version_json(const call& of, const item& file, const listed_version& shown) {
  json_ptr object(json_object());
  json_put(object.get(), "type", "file_version");
  json_put(object.get(), "id", std::to_string(shown.content.id));
  json_put(object.get(), "sha1", shown.content.sha1);
  json_put(object.get(), "name", file.name);
  json_put(object.get(), "size", shown.content.size);
  json_put(object.get(), "created_at", time_or_null(of, shown.created_at));
  json_put(object.get(), "modified_at", time_or_null(of, shown.created_at));
  json_put(object.get(), "modified_by", item_view(of).user_json());
  json_put(object.get(), "trashed_at", time_or_null(of, shown.trashed_at));
  json_put(object.get(), "purged_at",
           time_or_null(of, shown.trashed_at == 0 ? 0 : shown.trashed_at + VERSION_TRASH_LIFE_S));
  json_put(object.get(), "version_number", std::to_string(shown.number));
  return object;
}

/// A version of this file. Throws 404 for one of another file, too.
listed_version version_of(const call& of, const item& file, std::int64_t id) {
  for (const listed_version& each : of.box.versions.list(file.id)) {
    if (each.content.id == id) return each;
  }
  throw not_found_problem("file_version", std::to_string(id));
}

response version_answer(const call& of, unsigned status, const item& file, std::int64_t id) {
  return response_json(status, version_json(of, file, version_of(of, file, id)).get());
}

}  // namespace

response file_version_list(call& of) {
  transaction hold(of.box.data);
  const item file = file_of(of);
  auto versions = of.box.versions.list(file.id);
  std::erase_if(versions, [&](const listed_version& each) { return each.content.id == file.version; });
  return page_answer(of, versions, [&](const listed_version& each) { return version_json(of, file, each); });
}

response file_version_get(call& of) {
  transaction hold(of.box.data);
  return version_answer(of, 200, file_of(of), of.id(1));
}

response file_version_restore(call& of) {
  const json_ptr body = of.body_object();
  require(json_is_null(json_object_get(body.get(), "trashed_at")), "'trashed_at' must be null");
  transaction hold(of.box.data);
  const item file = file_of(of);
  of.box.versions.set_trashed(version_of(of, file, of.id(1)).content.id, 0);
  response answer = version_answer(of, 200, file, of.id(1));
  hold.commit();
  return answer;
}

response file_version_delete(call& of) {
  transaction hold(of.box.data);
  const item file = file_of(of);
  call_check_writable(of, file);
  call_check_match(of, file);
  const listed_version gone = version_of(of, file, of.id(1));
  require(gone.content.id != file.version, "The current version of a file cannot be deleted");
  of.box.versions.set_trashed(gone.content.id, of.now());
  hold.commit();
  return response_empty(204);
}

response file_version_promote(call& of) {
  const json_ptr body = of.body_object();
  const auto id = json_number_at(body.get(), "id");
  require(id && json_text_at(body.get(), "type") == "file_version", "'type' file_version and 'id' are required");
  transaction hold(of.box.data);
  const item before = file_of(of);
  call_check_writable(of, before);
  call_check_match(of, before);
  const listed_version chosen = version_of(of, before, *id);
  if (chosen.trashed_at != 0) throw box_problem("trashed");
  require(chosen.content.id != before.version, "This version is the current one");
  call_check_quota(of, chosen.content.size);
  // Its bytes are shared: a version is a row, and a content goes with the last row that names it.
  version made = chosen.content;
  made.id = of.box.data.next_number("versions");
  of.box.versions.add(made, of.now());
  of.box.users.add_used(before.owner, made.size);
  item after = before;
  after.version = made.id;
  after.size = made.size;
  after.sha1 = made.sha1;
  after.modified_at = of.now();
  ++after.etag;
  of.box.items.update(before, after);
  response answer = version_answer(of, 201, after, made.id);
  hold.commit();
  return answer;
}

}  // namespace tarvex::emulator
