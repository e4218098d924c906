#include "tarvex_box_common.h"

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

/// djb2 over signed bytes; the stat field keeps the low half.
uint32_t tarvex_l_box_hash(const char* text) {
  uint64_t hash = 5381;
  for (; *text != '\0'; ++text) hash = hash * 33 + static_cast<uint64_t>(static_cast<signed char>(*text));
  return static_cast<uint32_t>(hash);
}

}  // namespace

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
  copy->type = info->type;
  copy->size = info->size;
  copy->modtime = info->modtime;
  copy->listed = info->listed;
  copy->has_metadata = info->has_metadata;
  copy->next_etag = info->next_etag;
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
