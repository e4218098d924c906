#include "item.h"
#include "trace.h"

using tarvex::box::error_path;
using tarvex::box::request;

namespace {

constexpr tarvex::box::error_source RENAME_SOURCE("tarvex_i_box_rename");

/// What is kept of the source: its record may go when the target's folder is listed.
struct rename_source {
  int type;
  std::string id;
  std::string path;
};

tarvex_result_t tarvex_l_box_move(tarvex_box_session_t* box, const rename_source& item,
                                  const tarvex_box_path_info_t& folder, const std::string& name) {
  const auto body = tarvex::box::placement(name, folder.id);
  if (!body) return tarvex::box::error_name();
  const request call = {
      .source = RENAME_SOURCE,
      .method = "PUT",
      .url = tarvex::box::api_url({"/2.0/", tarvex::box::item_collection(item.type), "/", item.id.c_str()}),
      .query = {{"fields", tarvex::box::ITEM_FIELDS}},
      .headers = {{"Content-Type", "application/json;"}},
      .write = tarvex_dsi_rest_write_json,
      .write_arg = body.get(),
      .pacing = &box->user_retry,
  };
  tarvex::box::answer moved;
  tarvex_result_t result = request_perform(box, call, moved);
  if (result == TARVEX_SUCCESS) result = item_entered(box, RENAME_SOURCE, moved.document.get(), folder.name);
  if (result == TARVEX_SUCCESS) result = tarvex_box_path_cache_remove(&box->cache, item.path.c_str());
  return result;
}

tarvex_result_t tarvex_l_box_rename(tarvex_box_session_t* box, const char* from, const char* to) {
  tarvex_box_path_info_t* item = nullptr;
  tarvex_box_path_info_t* folder = nullptr;
  const tarvex_result_t result = tarvex_box_path_resolve(box, from, &item, &folder);
  if (result != TARVEX_SUCCESS) return result;
  const rename_source moved = {.type = item->type, .id = item->id, .path = item->name};
  const auto [folder_path, name] = tarvex::box::path_split(to, RENAME_SOURCE.function);
  item = folder = nullptr;
  tarvex_result_release(tarvex_box_path_resolve(box, to, &item, &folder));
  if (folder == nullptr || folder->type != TARVEX_BOX_FOLDER) return error_path(553, "NOT_A_DIRECTORY", folder_path);
  if (item != nullptr) return error_path(553, "PATH_EXISTS", to);
  return tarvex_l_box_move(box, moved, *folder, name);
}

}  // namespace

extern "C" void tarvex_i_box_rename(tarvex_gfs_operation_t op, tarvex_gfs_command_info_t* cmd_info,
                                    tarvex_box_session_t* box) {
  tarvex::box::reported([&] { return tarvex_l_box_rename(box, cmd_info->from_pathname, cmd_info->pathname); },
                        [&](tarvex_result_t result) { tarvex_gridftp_server_finished_command(op, result, nullptr); });
}
