#include "path_record.h"

#include <malloc.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

namespace {

/// Copies a string if there is one; false when memory is out.
bool tarvex_l_box_duplicate(const char* from, char*& to) {
  to = from != nullptr ? strdup(from) : nullptr;
  return from == nullptr || to != nullptr;
}

/// Whether a text is part of the record's own allocation, as those of the path cache are.
bool tarvex_l_box_is_inside(tarvex_box_path_info_t* info, const char* text) {
  if (!info->freeme || text == nullptr) return false;
  const auto distance = reinterpret_cast<uintptr_t>(text) - reinterpret_cast<uintptr_t>(info);
  return distance < malloc_usable_size(info);
}

/// Copies a text and its end to `at`, and moves on. Null stays null.
char* tarvex_l_box_place(const char* text, char*& at) {
  if (text == nullptr) return nullptr;
  const size_t length = std::strlen(text) + 1;
  char* const placed = static_cast<char*>(std::memcpy(at, text, length));
  at += length;
  return placed;
}

size_t tarvex_l_box_room(const char* text) {
  return text != nullptr ? std::strlen(text) + 1 : 0;
}

/// All but the texts.
void tarvex_l_box_copy_numbers(const tarvex_box_path_info_t& from, tarvex_box_path_info_t& to) {
  to.type = from.type;
  to.size = from.size;
  to.modtime = from.modtime;
  to.listed = from.listed;
  to.has_metadata = from.has_metadata;
  to.next_etag = from.next_etag;
}

/// djb2 over signed bytes; the stat field keeps the low half.
uint32_t tarvex_l_box_hash(const char* text) {
  uint64_t hash = 5381;
  for (; *text != '\0'; ++text) hash = hash * 33 + static_cast<uint64_t>(static_cast<signed char>(*text));
  return static_cast<uint32_t>(hash);
}

}  // namespace

namespace tarvex::box {

tarvex_box_path_info_t* path_record_new(const tarvex_box_path_info_t& info, std::string_view base) {
  if (info.name == nullptr || info.id == nullptr) return nullptr;
  const size_t separator = base.empty() || base.size() == 1 ? 0 : 1;
  const size_t room = base.size() + separator + tarvex_l_box_room(info.name) + tarvex_l_box_room(info.id) +
                      tarvex_l_box_room(info.sha1);
  auto* const record = static_cast<tarvex_box_path_info_t*>(std::malloc(sizeof(tarvex_box_path_info_t) + room));
  if (record == nullptr) return nullptr;
  *record = {};
  record->freeme = true;
  char* at = reinterpret_cast<char*>(record + 1);
  record->name = at;
  at = base.copy(at, base.size()) + at;
  if (separator != 0) *at++ = '/';
  tarvex_l_box_place(info.name, at);
  record->id = tarvex_l_box_place(info.id, at);
  record->sha1 = tarvex_l_box_place(info.sha1, at);
  tarvex_l_box_copy_numbers(info, *record);
  const bool complete =
      tarvex_l_box_duplicate(info.parent_id, record->parent_id) && tarvex_l_box_duplicate(info.md5, record->md5);
  if (complete) return record;
  tarvex_box_path_info_free(record);
  return nullptr;
}

}  // namespace tarvex::box

extern "C" {

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
  tarvex_l_box_copy_numbers(*info, *copy);
  return copy;
}

void tarvex_box_path_info_free(tarvex_box_path_info_t* info) {
  if (info == nullptr) return;
  for (char** const text : {&info->name, &info->id, &info->parent_id, &info->md5, &info->sha1}) {
    if (!tarvex_l_box_is_inside(info, *text)) std::free(*text);
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
