#include "api/item_json.h"

#include <algorithm>

#include "api/metadata.h"
#include "base/names.h"
#include "base/text.h"
#include "base/times.h"

namespace tarvex::emulator {

/// One field: which kinds of items have it, from which set on it is shown, and how it is made.
struct item_view::field {
  static constexpr unsigned FOLDER = 1;
  static constexpr unsigned FILE = 2;
  static constexpr unsigned LINK = 4;
  enum class shown { MINI, STANDARD, ASKED };

  const char* name;
  unsigned kinds;
  shown from;
  json_ptr (*make)(item_view& view, const item& subject);

  [[nodiscard]] bool fits(const item& subject) const {
    return (kinds >> static_cast<unsigned>(subject.type) & 1U) != 0;
  }
};

namespace {

using field = item_view::field;

constexpr std::int64_t TRASH_LIFE_S = 30L * 86400;
constexpr unsigned ALL = field::FOLDER | field::FILE | field::LINK;
constexpr std::int64_t CONTENTS_LIMIT = 100;

json_ptr none() {
  return json_ptr(json_null());
}
json_ptr text(std::string_view value) {
  return json_string_of(value);
}

json_ptr time(const item_view& view, const item& subject, std::int64_t seconds) {
  return subject.is_root() ? none() : text(time_text(seconds, view.set().zone_offset_minutes));
}

json_ptr size(const item_view& view, const item& subject) {
  if (subject.size >= view.set().float_size_from) return json_ptr(json_real(static_cast<double>(subject.size)));
  return json_ptr(json_integer(subject.size));
}

json_ptr etag(const item& subject) {
  return subject.is_root() ? none() : text(std::to_string(subject.etag));
}

json_ptr file_version(const item& subject) {
  json_ptr version(json_object());
  json_put(version.get(), "type", "file_version");
  json_put(version.get(), "id", std::to_string(subject.version));
  json_put(version.get(), "sha1", subject.sha1);
  return version;
}

std::string_view type_name(item_type type) {
  static constexpr std::string_view NAMES[] = {"folder", "file", "web_link"};
  return NAMES[static_cast<int>(type)];
}

std::string extension(const std::string& name) {
  const auto dot = name.rfind('.');
  return dot == std::string::npos ? "" : name.substr(dot + 1);
}

json_ptr trash_time(const item_view& view, const item& subject, std::int64_t later) {
  if (subject.trashed == item_trash::ACTIVE) return none();
  return text(time_text(subject.trashed_at + later, view.set().zone_offset_minutes));
}

using shown = field::shown;
// A row's function takes the view and the item.
#define TARVEX_FIELD [](item_view & view [[maybe_unused]], const item& it [[maybe_unused]])
const field FIELDS[] = {{"type", ALL, shown::MINI, TARVEX_FIELD{return text(type_name(it.type));
}  // namespace
}  // namespace tarvex::emulator
, {"id", ALL, shown::MINI, TARVEX_FIELD{return text(std::to_string(it.id));
}
}
, {"file_version", field::FILE, shown::MINI, TARVEX_FIELD{return file_version(it);
}
}
, {"sequence_id", ALL, shown::MINI, TARVEX_FIELD{return etag(it);
}
}
, {"etag", ALL, shown::MINI, TARVEX_FIELD{return etag(it);
}
}
, {"sha1", field::FILE, shown::MINI, TARVEX_FIELD{return text(it.sha1);
}
}
, {"name", ALL, shown::MINI, TARVEX_FIELD{return text(it.name);
}
}
, {"url", field::LINK, shown::MINI, TARVEX_FIELD{return text(it.url);
}
}
, {"created_at", ALL, shown::STANDARD, TARVEX_FIELD{return time(view, it, it.created_at);
}
}
, {"modified_at", ALL, shown::STANDARD, TARVEX_FIELD{return time(view, it, it.modified_at);
}
}
, {"description", ALL, shown::STANDARD, TARVEX_FIELD{return text(it.description);
}
}
, {"size", field::FOLDER | field::FILE, shown::STANDARD, TARVEX_FIELD{return size(view, it);
}
}
, {"path_collection", ALL, shown::STANDARD, TARVEX_FIELD{return view.path_of(it);
}
}
, {"created_by", ALL, shown::STANDARD, TARVEX_FIELD{return view.user_json();
}
}
, {"modified_by", ALL, shown::STANDARD, TARVEX_FIELD{return view.user_json();
}
}
, {"trashed_at", ALL, shown::STANDARD, TARVEX_FIELD{return trash_time(view, it, 0);
}
}
, {"purged_at", ALL, shown::STANDARD, TARVEX_FIELD{return trash_time(view, it, TRASH_LIFE_S);
}
}
, {"content_created_at", field::FOLDER | field::FILE, shown::STANDARD,
   TARVEX_FIELD{return time(view, it, it.content_created_at);
}
}
, {"content_modified_at", field::FOLDER | field::FILE, shown::STANDARD,
   TARVEX_FIELD{return time(view, it, it.content_modified_at);
}
}
, {"owned_by", ALL, shown::STANDARD, TARVEX_FIELD{return view.user_json();
}
}
, {"shared_link", ALL, shown::STANDARD, TARVEX_FIELD{return none();
}
}
, {"folder_upload_email", field::FOLDER, shown::STANDARD, TARVEX_FIELD{return none();
}
}
, {"parent", ALL, shown::STANDARD, TARVEX_FIELD{return view.parent_of(it);
}
}
, {"item_status", ALL, shown::STANDARD,
   TARVEX_FIELD{return text(it.trashed == item_trash::ACTIVE ? "active" : "trashed");
}
}
, {"item_collection", field::FOLDER, shown::STANDARD, TARVEX_FIELD{return view.contents_of(it);
}
}
, {"extension", field::FILE, shown::ASKED, TARVEX_FIELD{return text(extension(it.name));
}
}
, {"tags", ALL, shown::ASKED, TARVEX_FIELD{return json_ptr(json_array());
}
}
, {"comment_count", field::FILE, shown::ASKED, TARVEX_FIELD{return json_ptr(json_integer(0));
}
}
,
}
;
#undef TARVEX_FIELD

constexpr std::string_view METADATA_PREFIX = "metadata.";

}  // namespace

std::string item_typed_id(item_type type, std::int64_t id) {
  static constexpr std::string_view PREFIXES[] = {"d_", "f_", "w_"};
  return std::string(PREFIXES[static_cast<int>(type)]) + std::to_string(id);
}

std::string item_folded(const item& of) {
  return name_folded(of.name);
}

json_ptr item_order_json() {
  return json_ptr(
      json_pack("[{s:s,s:s},{s:s,s:s}]", "by", "type", "direction", "ASC", "by", "name", "direction", "ASC"));
}

item_view::item_view(const call& of) : of_(of) {
  const auto asked = of.in.parameter("fields");
  if (!asked || asked->empty()) return;
  has_fields_ = true;
  const auto names = split(*asked, ',');
  for (const field& candidate : FIELDS) {
    const std::string_view name = candidate.name;
    const bool always = name == "type" || name == "id" || name == "etag";
    if (always || std::find(names.begin(), names.end(), name) != names.end()) fields_.push_back(&candidate);
  }
  for (const std::string_view name : names) {
    if (name.starts_with(METADATA_PREFIX)) templates_.emplace_back(name.substr(METADATA_PREFIX.size()));
  }
}

json_ptr item_view::single(const item& subject) {
  return has_fields_ ? asked(subject) : at_level(subject, level::STANDARD);
}

json_ptr item_view::listed(const item& subject) {
  return has_fields_ ? asked(subject) : mini(subject);
}

json_ptr item_view::mini(const item& subject) {
  return at_level(subject, level::MINI);
}

json_ptr item_view::entries_of_one(const item& subject) {
  json_ptr entries(json_array());
  json_add(entries.get(), single(subject));
  json_ptr list(json_object());
  json_put(list.get(), "total_count", 1);
  json_put(list.get(), "entries", std::move(entries));
  return list;
}

json_ptr item_view::at_level(const item& subject, level wanted) {
  json_ptr object(json_object());
  for (const field& each : FIELDS) {
    const bool in_set = each.from == shown::MINI || (wanted == level::STANDARD && each.from == shown::STANDARD);
    if (in_set && each.fits(subject)) json_put(object.get(), each.name, each.make(*this, subject));
  }
  return object;
}

json_ptr item_view::asked(const item& subject) {
  json_ptr object(json_object());
  for (const field* each : fields_) {
    if (each->fits(subject)) json_put(object.get(), each->name, each->make(*this, subject));
  }
  if (!templates_.empty()) json_put(object.get(), "metadata", metadata_of(subject));
  return object;
}

json_ptr item_view::parent_of(const item& subject) {
  if (subject.parent == NO_PARENT) return none();
  if (parent_id_ != subject.parent) {
    const auto found = of_.box.items.find(subject.owner, item_type::FOLDER, subject.parent);
    parent_ = found ? mini(*found) : none();
    parent_id_ = subject.parent;
  }
  return json_ptr(json_incref(parent_.get()));
}

json_ptr item_view::path_of(const item& subject) {
  json_ptr entries(json_array());
  if (subject.trashed == item_trash::ACTIVE) {
    for (const item& folder : of_.box.items.ancestors(subject)) json_add(entries.get(), mini(folder));
  } else {
    json_ptr trash(
        json_pack("{s:s,s:s,s:n,s:n,s:s}", "type", "folder", "id", "1", "sequence_id", "etag", "name", "Trash"));
    json_add(entries.get(), std::move(trash));
  }
  json_ptr path(json_object());
  json_put(path.get(), "total_count", static_cast<std::int64_t>(json_array_size(entries.get())));
  json_put(path.get(), "entries", std::move(entries));
  return path;
}

json_ptr item_view::contents_of(const item& subject) {
  json_ptr entries(json_array());
  for (const item& each : of_.box.items.list_from(subject.owner, subject.id, 0, CONTENTS_LIMIT, "", false)) {
    json_add(entries.get(), mini(each));
  }
  json_ptr list(json_object());
  json_put(list.get(), "total_count", of_.box.items.count(subject.owner, subject.id));
  json_put(list.get(), "entries", std::move(entries));
  json_put(list.get(), "offset", 0);
  json_put(list.get(), "limit", CONTENTS_LIMIT);
  json_put(list.get(), "order", item_order_json());
  return list;
}

json_ptr item_view::metadata_of(const item& subject) {
  for (const std::string& wanted : templates_) {
    if (wanted != "global.properties") continue;
    json_ptr instance = metadata_instance(of_.box.data, subject);
    if (!instance) continue;
    json_ptr global(json_object());
    json_put(global.get(), "properties", std::move(instance));
    json_ptr scopes(json_object());
    json_put(scopes.get(), "global", std::move(global));
    return scopes;
  }
  return none();
}

json_ptr item_view::user_json() const {
  json_ptr owner(json_object());
  json_put(owner.get(), "type", "user");
  json_put(owner.get(), "id", std::to_string(of_.me.id));
  json_put(owner.get(), "name", of_.me.name);
  json_put(owner.get(), "login", of_.me.login());
  return owner;
}

}  // namespace tarvex::emulator
