#include "api/item_field.h"

#include "api/collaboration.h"
#include "api/item_lock.h"
#include "api/item_member.h"
#include "api/item_permission.h"
#include "api/item_view.h"
#include "api/shared_link.h"
#include "base/times.h"

#include <string>
#include <string_view>

namespace tarvex::emulator {
namespace {

constexpr std::int64_t TRASH_LIFE_S = 30L * 86400;

json_ptr none() {
  return json_ptr(json_null());
}

json_ptr text(std::string_view value) {
  return json_string_of(value);
}

/// The root has no times of its own: Box shows null.
json_ptr time_of(const item_view& view, const item& it, std::int64_t seconds) {
  return it.is_root() ? none() : text(time_text(seconds, view.set().zone_offset_minutes));
}

json_ptr trash_time_of(const item_view& view, const item& it, std::int64_t later) {
  return it.trashed == item_trash::ACTIVE ? none()
                                          : text(time_text(it.trashed_at + later, view.set().zone_offset_minutes));
}

std::string_view type_name(item_type type) {
  static constexpr std::string_view NAMES[] = {"folder", "file", "web_link"};
  return NAMES[static_cast<int>(type)];
}

std::string extension_of(const std::string& name) {
  const auto dot = name.rfind('.');
  return dot == std::string::npos ? "" : name.substr(dot + 1);
}

/// What the rows below call, one function for each field.
struct value {
  using view = item_view;

  static json_ptr type(view&, const item& it) { return text(type_name(it.type)); }
  static json_ptr id(view&, const item& it) { return text(std::to_string(it.id)); }
  static json_ptr file_version(view&, const item& it) {
    return json_ptr(json_pack("{s:s,s:s,s:s}", "type", "file_version", "id", std::to_string(it.version).c_str(), "sha1",
                              it.sha1.c_str()));
  }
  // Box's sequence_id and etag move together.
  static json_ptr etag(view&, const item& it) { return it.is_root() ? none() : text(std::to_string(it.etag)); }
  static json_ptr sha1(view&, const item& it) { return text(it.sha1); }
  static json_ptr name(view&, const item& it) { return text(it.name); }
  static json_ptr url(view&, const item& it) { return text(it.url); }
  static json_ptr created_at(view& in, const item& it) { return time_of(in, it, it.created_at); }
  static json_ptr modified_at(view& in, const item& it) { return time_of(in, it, it.modified_at); }
  static json_ptr description(view&, const item& it) { return text(it.description); }
  static json_ptr size(view& in, const item& it) {
    // Box writes very large sizes as floating point, which a reader of JSON integers does not see.
    if (it.size >= in.set().float_size_from) return json_ptr(json_real(static_cast<double>(it.size)));
    return json_ptr(json_integer(it.size));
  }
  static json_ptr path_collection(view& in, const item& it) { return in.path_of(it); }
  static json_ptr user(view& in, const item&) { return in.user_json(); }
  static json_ptr owner(view& in, const item& it) { return in.owner_json(it); }
  static json_ptr trashed_at(view& in, const item& it) { return trash_time_of(in, it, 0); }
  static json_ptr purged_at(view& in, const item& it) { return trash_time_of(in, it, TRASH_LIFE_S); }
  static json_ptr content_created_at(view& in, const item& it) { return time_of(in, it, it.content_created_at); }
  static json_ptr content_modified_at(view& in, const item& it) { return time_of(in, it, it.content_modified_at); }
  static json_ptr null(view&, const item&) { return none(); }
  static json_ptr parent(view& in, const item& it) { return in.parent_of(it); }
  static json_ptr item_status(view&, const item& it) {
    return text(it.trashed == item_trash::ACTIVE ? "active" : "trashed");
  }
  static json_ptr item_collection(view& in, const item& it) { return in.contents_of(it); }
  static json_ptr extension(view&, const item& it) { return text(extension_of(it.name)); }
  static json_ptr tags(view& in, const item& it) { return item_tags_json(in.of(), it); }
  static json_ptr shared_link(view& in, const item& it) { return shared_link_json(in.of(), it); }
  static json_ptr lock(view& in, const item& it) { return lock_json(in.of(), it); }
  static json_ptr permissions(view& in, const item& it) { return permissions_json_of(in.of(), it); }
  static json_ptr version_number(view& in, const item& it) {
    return text(std::to_string(in.of().box.versions.list(it.id).size()));
  }
  static json_ptr has_collaborations(view& in, const item& it) {
    return json_ptr(json_boolean(!collaborations_on(in.of(), it).empty()));
  }
  static json_ptr roles(view&, const item&) { return collaboration_roles_json(); }
  static json_ptr no(view&, const item&) { return json_ptr(json_false()); }
  static json_ptr yes(view&, const item&) { return json_ptr(json_true()); }
  static json_ptr link_levels(view&, const item&) {
    return json_ptr(json_pack("[s,s,s]", "collaborators", "open", "company"));
  }
  static json_ptr none_of_them(view&, const item&) { return json_ptr(json_array()); }
  static json_ptr sync_state(view&, const item&) { return text("not_synced"); }
  static json_ptr comment_count(view& in, const item& it) {
    const auto all = in.of().box.records.list("comment", item_typed_id(it.type, it.id));
    return json_ptr(json_integer(static_cast<json_int_t>(all.size())));
  }
};

using enum item_field::shown;
constexpr unsigned FOLDER = item_field::FOLDER;
constexpr unsigned FILE_ = item_field::FILE;
constexpr unsigned LINK = item_field::LINK;
constexpr unsigned ALL = FOLDER | FILE_ | LINK;

constexpr item_field FIELDS[] = {
    {"type", ALL, ALWAYS, value::type},
    {"id", ALL, ALWAYS, value::id},
    {"file_version", FILE_, MINI, value::file_version},
    {"sequence_id", ALL, MINI, value::etag},
    {"etag", ALL, ALWAYS, value::etag},
    {"sha1", FILE_, MINI, value::sha1},
    {"name", ALL, MINI, value::name},
    {"url", LINK, MINI, value::url},
    {"created_at", ALL, STANDARD, value::created_at},
    {"modified_at", ALL, STANDARD, value::modified_at},
    {"description", ALL, STANDARD, value::description},
    {"size", FOLDER | FILE_, STANDARD, value::size},
    {"path_collection", ALL, STANDARD, value::path_collection},
    {"created_by", ALL, STANDARD, value::user},
    {"modified_by", ALL, STANDARD, value::user},
    {"trashed_at", ALL, STANDARD, value::trashed_at},
    {"purged_at", ALL, STANDARD, value::purged_at},
    {"content_created_at", FOLDER | FILE_, STANDARD, value::content_created_at},
    {"content_modified_at", FOLDER | FILE_, STANDARD, value::content_modified_at},
    {"owned_by", ALL, STANDARD, value::owner},
    {"shared_link", ALL, STANDARD, value::shared_link},
    {"folder_upload_email", FOLDER, STANDARD, value::null},
    {"parent", ALL, STANDARD, value::parent},
    {"item_status", ALL, STANDARD, value::item_status},
    {"item_collection", FOLDER, STANDARD, value::item_collection},
    {"extension", FILE_, ASKED, value::extension},
    {"tags", ALL, ASKED, value::tags},
    {"lock", FILE_, ASKED, value::lock},
    {"permissions", FOLDER | FILE_, ASKED, value::permissions},
    {"version_number", FILE_, ASKED, value::version_number},
    {"is_package", FILE_, ASKED, value::no},
    {"has_collaborations", FOLDER | FILE_, ASKED, value::has_collaborations},
    {"is_externally_owned", FOLDER | FILE_, ASKED, value::no},
    {"can_non_owners_invite", FOLDER, ASKED, value::yes},
    {"can_non_owners_view_collaborators", FOLDER, ASKED, value::yes},
    {"is_collaboration_restricted_to_enterprise", FOLDER, ASKED, value::no},
    {"allowed_shared_link_access_levels", FOLDER | FILE_, ASKED, value::link_levels},
    {"allowed_invitee_roles", FOLDER | FILE_, ASKED, value::roles},
    {"collections", ALL, ASKED, value::none_of_them},
    {"sync_state", FOLDER, ASKED, value::sync_state},
    {"comment_count", FILE_, ASKED, value::comment_count},
};

}  // namespace

std::span<const item_field> item_fields() {
  return FIELDS;
}

}  // namespace tarvex::emulator
