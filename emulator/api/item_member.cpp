#include "api/item_member.h"

#include "api/item_lock.h"
#include "api/shared_link.h"

namespace tarvex::emulator {
namespace {

constexpr std::string_view TAGS_KIND = "tags";

// What item_update itself reads, and what the table below adds to it.
constexpr std::string_view KEPT_OF_FILES =
    "name parent description content_created_at content_modified_at shared_link lock tags";
constexpr std::string_view KEPT_OF_FOLDERS = "name parent description shared_link tags";
constexpr std::string_view KEPT_OF_LINKS = "name parent description url shared_link tags";

void tags_apply(const call& of, const item& subject, const json_t* wanted) {
  require(json_is_array(wanted), "'tags' must be an array of texts");
  for (std::size_t i = 0; i < json_array_size(wanted); ++i) {
    require(json_is_string(json_array_get(wanted, i)), "'tags' must be an array of texts");
  }
  const std::string typed_id = item_typed_id(subject.type, subject.id);
  for (const record& old : of.box.records.list(TAGS_KIND, typed_id)) of.box.records.remove(old.id);
  json_ptr value(json_object());
  json_put(value.get(), "tags", json_ptr(json_deep_copy(wanted)));
  (void)of.box.records.create(TAGS_KIND, {.owner = of.me.id, .subject = typed_id, .value = std::move(value)});
}

struct member_row {
  const char* name;
  void (*apply)(const call& of, const item& subject, const json_t* wanted);
};

constexpr member_row MEMBER_ROWS[] = {{"shared_link", shared_link_apply}, {"lock", lock_apply}, {"tags", tags_apply}};

}  // namespace

bool item_members_apply(const call& of, const json_t* body, const item& subject) {
  constexpr std::string_view KEPT[] = {KEPT_OF_FOLDERS, KEPT_OF_FILES, KEPT_OF_LINKS};
  call_check_members(body, KEPT[static_cast<int>(subject.type)]);
  bool changed = false;
  for (const member_row& each : MEMBER_ROWS) {
    const json_t* wanted = json_object_get(body, each.name);
    if (wanted == nullptr) continue;
    each.apply(of, subject, wanted);
    changed = true;
  }
  return changed;
}

json_ptr item_tags_json(const call& of, const item& subject) {
  const auto held = of.box.records.first(TAGS_KIND, item_typed_id(subject.type, subject.id));
  return held ? json_ptr(json_incref(json_object_get(held->value.get(), "tags"))) : json_ptr(json_array());
}

}  // namespace tarvex::emulator
