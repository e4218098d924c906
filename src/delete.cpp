#include "request.h"
#include "trace.h"

using tarvex::box::error_generic;
using tarvex::box::request;

namespace {

constexpr tarvex::box::error_source DELETE_SOURCE("tarvex_i_box_delete_object");

/// What a command type deletes, and how.
struct delete_row {
  int command;
  int type;
  const char* mismatch;
  bool recursive;
};

constexpr delete_row DELETIONS[] = {
    {TARVEX_GFS_CMD_DELE, TARVEX_BOX_FILE, "Path is a folder.", false},
    {TARVEX_GFS_CMD_RMD, TARVEX_BOX_FOLDER, "Path is a file.", false},
    {TARVEX_GFS_CMD_SITE_RDEL, TARVEX_BOX_FOLDER, "Path is a file.", true},
};

tarvex_result_t tarvex_l_box_delete_send(tarvex_box_session_t* box, const tarvex_box_path_info_t& item,
                                         bool recursive) {
  request call = {
      .source = DELETE_SOURCE,
      .method = "DELETE",
      .url = tarvex::box::api_url({"/2.0/", tarvex::box::item_collection(item.type), "/", item.id}),
      .reads_document = false,
      .pacing = &box->user_retry,
      .judge = tarvex::box::judge_final,
  };
  if (recursive) call.query = {{"recursive", "true"}};
  tarvex::box::answer ignored;
  const tarvex_result_t result = request_perform(box, call, ignored);
  tarvex_result_release(tarvex_box_path_cache_remove(&box->cache, std::string(item.name).c_str()));
  return result;
}

tarvex_result_t tarvex_l_box_delete_object(tarvex_box_session_t* box, const tarvex_box_path_info_t& item, int command) {
  for (const delete_row& row : DELETIONS) {
    if (row.command != command) continue;
    if (row.type != item.type) return error_generic(DELETE_SOURCE, row.mismatch);
    return tarvex_l_box_delete_send(box, item, row.recursive);
  }
  return tarvex::box::error_memory();
}

tarvex_result_t tarvex_l_box_delete(tarvex_box_session_t* box, const tarvex_gfs_command_info_t* cmd_info) {
  tarvex_box_path_info_t* item = nullptr;
  const tarvex_result_t result = tarvex_box_path_resolve(box, cmd_info->pathname, &item, nullptr);
  return result == TARVEX_SUCCESS ? tarvex_i_box_delete_object(box, item, cmd_info->command) : result;
}

}  // namespace

extern "C" {

void tarvex_i_box_delete(tarvex_gfs_operation_t op, tarvex_gfs_command_info_t* cmd_info, tarvex_box_session_t* box) {
  tarvex::box::reported([&] { return tarvex_l_box_delete(box, cmd_info); },
                        [&](tarvex_result_t result) { tarvex_gridftp_server_finished_command(op, result, nullptr); });
}

tarvex_result_t tarvex_i_box_delete_object(tarvex_box_session_t* box, tarvex_box_path_info_t* path_info, int type) {
  return tarvex::box::traced([&] { return tarvex_l_box_delete_object(box, *path_info, type); });
}

}  // extern "C"
