#include "item.h"
#include "trace.h"

using tarvex::box::error_path;
using tarvex::box::request;

namespace {

constexpr tarvex::box::error_source MKDIR_SOURCE("tarvex_i_box_mkdir");

tarvex_result_t tarvex_l_box_folder_make(tarvex_box_session_t* box, const tarvex_box_path_info_t& parent,
                                         const std::string& name) {
  const auto body = tarvex::box::placement(name, parent.id);
  if (!body) return tarvex::box::error_name();
  const request call = {
      .source = MKDIR_SOURCE,
      .method = "POST",
      .url = tarvex::box::api_url({"/2.0/folders"}),
      .query = {{"fields", tarvex::box::ITEM_FIELDS}},
      .headers = {{"Content-Type", "application/json;"}},
      .write = tarvex_dsi_rest_write_json,
      .write_arg = body.get(),
      .pacing = &box->user_retry,
  };
  tarvex::box::answer folder;
  if (const tarvex_result_t result = request_perform(box, call, folder); result != TARVEX_SUCCESS) return result;
  return item_entered(box, MKDIR_SOURCE, folder.document.get(), parent.name);
}

tarvex_result_t tarvex_l_box_mkdir(tarvex_box_session_t* box, const char* pathname) {
  const auto [parent_path, name] = tarvex::box::path_split(pathname, MKDIR_SOURCE.function);
  tarvex_box_path_info_t* item = nullptr;
  tarvex_box_path_info_t* parent = nullptr;
  // That nothing of the name exists is what is hoped for; a failed listing leaves no parent.
  tarvex_result_release(tarvex_box_path_resolve(box, pathname, &item, &parent));
  if (parent == nullptr || parent->type != TARVEX_BOX_FOLDER) return error_path(553, "NOT_A_DIRECTORY", parent_path);
  if (item == nullptr) return tarvex_l_box_folder_make(box, *parent, name);
  if (item->type == TARVEX_BOX_FOLDER) return TARVEX_SUCCESS;
  return error_path(553, "NOT_A_DIRECTORY", pathname);
}

}  // namespace

extern "C" void tarvex_i_box_mkdir(tarvex_gfs_operation_t op, tarvex_gfs_command_info_t* cmd_info,
                                   tarvex_box_session_t* box) {
  tarvex::box::reported(
      [&] { return tarvex_l_box_mkdir(box, cmd_info->pathname); },
      [&](tarvex_result_t result) { tarvex_gridftp_server_finished_command(op, result, cmd_info->pathname); });
}
