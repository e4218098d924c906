#include "date.h"
#include "handles.h"
#include "trace.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace {

/// The record's copy of a string member; null when the member is absent or no string.
char* tarvex_l_box_string_copy(json_t* value) {
  const char* const text = json_string_value(value);
  return text != nullptr ? strdup(text) : nullptr;
}

tarvex_result_t tarvex_l_box_parse_error(const char* text, int line = __builtin_LINE()) {
  return tarvex::box::error_generic({"object_info_parse", "tarvex_box_object_info_parse"}, text, nullptr, line);
}

/// The time is computed from whatever could be read, also when the form is not the expected one.
bool tarvex_l_box_parse_modtime(const char* text, time_t& modtime) {
  tarvex::box::date_fields date;
  const int count = std::sscanf(text, "%4d-%2d-%2dT%2d:%2d:%2d%3d:%2d", &date.year, &date.month, &date.day, &date.hour,
                                &date.minute, &date.second, &date.offset_hours, &date.offset_minutes);
  modtime = tarvex::box::date_to_utc(date);
  return count == 8;
}

int tarvex_l_box_item_type(std::string_view type) {
  if (type == "folder") return TARVEX_BOX_FOLDER;
  return type == "file" ? TARVEX_BOX_FILE : TARVEX_BOX_UNKNOWN;
}

void tarvex_l_box_parse_metadata(json_t* json, tarvex_box_path_info_t* info) {
  json_t* const metadata = json_object_get(json, "metadata");
  if (metadata == nullptr || json_is_null(metadata)) return;
  info->has_metadata = true;
  json_t* const properties = json_object_get(json_object_get(metadata, "global"), "properties");
  info->md5 = tarvex_l_box_string_copy(json_object_get(properties, "tarvex-md5"));
}

tarvex_result_t tarvex_l_box_parse(json_t* json, tarvex_box_path_info_t* info) {
  const char* const type = json_string_value(json_object_get(json, "type"));
  if (type == nullptr) return tarvex_l_box_parse_error("No 'type' field found!");
  info->type = tarvex_l_box_item_type(type);
  info->name = tarvex_l_box_string_copy(json_object_get(json, "name"));
  info->id = tarvex_l_box_string_copy(json_object_get(json, "id"));
  if (json_t* const size = json_object_get(json, "size"); json_is_integer(size)) {
    info->size = static_cast<uint64_t>(json_integer_value(size));
  }
  const char* const modified = json_string_value(json_object_get(json, "content_modified_at"));
  const bool dated = modified == nullptr || tarvex_l_box_parse_modtime(modified, info->modtime);
  info->sha1 = tarvex_l_box_string_copy(json_object_get(json, "sha1"));
  tarvex_l_box_parse_metadata(json, info);
  // No parent, a null parent, and one without an id all mean the root; an id is a string or none.
  const char* const parent = json_string_value(json_object_get(json_object_get(json, "parent"), "id"));
  info->parent_id = strdup(parent != nullptr ? parent : "0");
  if (info->parent_id == nullptr) return tarvex_l_box_parse_error("No 'parent->id' field found!");
  return dated ? tarvex::box::success : tarvex_l_box_parse_error("Error with 'content_modified_at' field!");
}

/// Copies a string if there is one; false when memory is out.
bool tarvex_l_box_duplicate(const char* from, char*& to) {
  to = from != nullptr ? strdup(from) : nullptr;
  return from == nullptr || to != nullptr;
}

/// djb2 over signed bytes; the stat field keeps the low half.
uint32_t tarvex_l_box_hash(const char* text) {
  uint64_t hash = 5381;
  for (; *text != '\0'; ++text) hash = hash * 33 + static_cast<uint64_t>(static_cast<signed char>(*text));
  return static_cast<uint32_t>(hash);
}

}  // namespace

extern "C" {

tarvex_result_t tarvex_box_object_info_parse(json_t* json, tarvex_box_path_info_t* info) {
  return tarvex::box::traced([&] { return tarvex_l_box_parse(json, info); });
}

tarvex_box_path_info_t* tarvex_box_path_info_copy(const tarvex_box_path_info_t* info) {
  if (info == nullptr || info->name == nullptr || info->id == nullptr) return nullptr;
  auto* const copy = static_cast<tarvex_box_path_info_t*>(std::calloc(1, sizeof(tarvex_box_path_info_t)));
  if (copy == nullptr) return nullptr;
  copy->freeme = true;
  const bool complete = tarvex_l_box_duplicate(info->name, copy->name) && tarvex_l_box_duplicate(info->id, copy->id) &&
                        tarvex_l_box_duplicate(info->parent_id, copy->parent_id) &&
                        tarvex_l_box_duplicate(info->md5, copy->md5) && tarvex_l_box_duplicate(info->sha1, copy->sha1);
  if (!complete) {
    tarvex_box_path_info_free(copy);
    return nullptr;
  }
  copy->type = info->type;
  copy->size = info->size;
  copy->modtime = info->modtime;
  copy->listed = info->listed;
  copy->has_metadata = info->has_metadata;
  return copy;
}

void tarvex_box_path_info_free(tarvex_box_path_info_t* info) {
  if (info == nullptr) return;
  for (char** const text : {&info->name, &info->id, &info->parent_id, &info->md5, &info->sha1}) {
    std::free(*text);
    *text = nullptr;
  }
  if (info->freeme) std::free(info);
}

tarvex_result_t tarvex_box_info_to_stat(const tarvex_box_session_t*, const tarvex_box_path_info_t* info,
                                        tarvex_gridftp_server_control_stat_t* stat_out) {
  *stat_out = {
      .mode = info->type == TARVEX_BOX_FOLDER ? mode_t{040700} : mode_t{0100700},
      .nlink = 1,
      .name = strdup(info->name),
      .symlink_target = nullptr,
      .uid = 0,
      .gid = 0,
      .size = static_cast<tarvex_off_t>(info->size),
      .atime = info->modtime,
      .ctime = info->modtime,
      .mtime = info->modtime,
      .dev = tarvex_l_box_hash(info->parent_id != nullptr ? info->parent_id : "00000"),
      .ino = tarvex_l_box_hash(info->name),
      .link_mode = 0,
      .error = TARVEX_GRIDFTP_SERVER_CONTROL_STAT_SUCCESS,
  };
  return TARVEX_SUCCESS;
}

}  // extern "C"
