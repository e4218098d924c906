#include "recv.h"

#include "date.h"
#include "trace.h"
#include "upload_abort.h"
#include "version.h"

using tarvex::box::error_ftp;
using tarvex::box::error_info;
using tarvex::box::pair;

namespace {

constexpr tarvex::box::error_source RECV_SOURCE("tarvex_i_box_recv");

/// Deletes what has the file's name. A failure says why the upload cannot be.
tarvex_result_t tarvex_l_box_make_room(tarvex_box_session_t* box, tarvex_box_path_info_t* existing) {
  const tarvex_result_t result = tarvex_i_box_delete_object(box, existing, TARVEX_BOX_UNKNOWN);
  if (result == TARVEX_SUCCESS) return result;
  tarvex_error_set_cause(
      tarvex_error_peek(result),
      error_info({pair("Box-Details",
                       "A file with this name already exists and must be deleted before upload, but deletion "
                       "failed.")}));
  return result;
}

tarvex_result_t tarvex_l_box_too_large(const tarvex_box_session_t& box, const tarvex_gfs_transfer_info_t& info) {
  const std::string size = std::to_string(static_cast<int64_t>(info.alloc_size));
  const std::string limit = std::to_string(static_cast<int64_t>(box.max_upload));
  tarvex_object_t* const cause =
      error_info({pair("Box-Path", info.pathname), pair("Box-Upload-Size", size.c_str()),
                  pair("Box-Max-Upload-Size", limit.c_str()), pair("Box-Error", "Upload size is too large.")});
  return error_ftp(451, "QUOTA_EXCEEDED", nullptr, cause);
}

/// Finds what has the file's name, and the folder.
tarvex_result_t tarvex_l_box_find_place(tarvex_box_session_t* box, const char* path, tarvex_box_path_info_t*& existing,
                                        tarvex_box_path_info_t*& parent) {
  const tarvex_result_t found = tarvex_box_path_resolve(box, path, &existing, &parent);
  if (found != TARVEX_SUCCESS || parent == nullptr || !tarvex::box::version_replaces(*existing)) return found;
  const tarvex_result_t refreshed = tarvex::box::version_refresh(box, path, *parent);
  existing = parent = nullptr;
  return refreshed == TARVEX_SUCCESS ? tarvex_box_path_resolve(box, path, &existing, &parent) : refreshed;
}

tarvex_result_t tarvex_l_box_recv(tarvex_gfs_operation_t op, tarvex_gfs_transfer_info_t* info,
                                  tarvex_box_session_t* box) {
  tarvex_result_t result = tarvex_box_token_refresh(box, op);
  if (result != TARVEX_SUCCESS) return result;
  tarvex_box_path_info_t* existing = nullptr;
  tarvex_box_path_info_t* parent = nullptr;
  result = tarvex_l_box_find_place(box, info->pathname, existing, parent);
  if (parent == nullptr) return result;
  if (result == TARVEX_SUCCESS && !tarvex::box::version_replaces(*existing)) {
    result = tarvex_l_box_make_room(box, existing);
    if (result != TARVEX_SUCCESS) return result;
  }
  tarvex_result_release(result);  // of a new file: not found
  if (info->alloc_size > box->max_upload) return tarvex_l_box_too_large(*box, *info);
  if (info->truncate) tarvex::box::upload_supersede(box, RECV_SOURCE, info->pathname);
  const bool chunked = static_cast<int64_t>(info->alloc_size) > tarvex_i_box_chunked_minimum;
  return (chunked ? tarvex_i_box_recv_chunked : tarvex_i_box_recv_small)(op, info, box, parent);
}

}  // namespace

extern "C" void tarvex_i_box_recv(tarvex_gfs_operation_t op, tarvex_gfs_transfer_info_t* transfer_info,
                                  void* user_arg) {
  auto* const box = static_cast<tarvex_box_session_t*>(user_arg);
  tarvex::box::reported([&] { return tarvex_l_box_recv(op, transfer_info, box); },
                        [&](tarvex_result_t result) { tarvex_gridftp_server_finished_transfer(op, result); });
}

namespace tarvex::box {

tarvex_result_t recv_modification_time(tarvex_gfs_operation_t op, std::string& text) {
  time_t modtime = -1;
  const tarvex_result_t result = tarvex_gridftp_server_get_recv_modification_time(op, &modtime);
  if (result == TARVEX_SUCCESS && modtime != -1) text = date_text(modtime);
  return result;
}

tarvex_result_t recv_entries_store(tarvex_box_session_t* box, const error_place& place, json_t* document,
                                   const char* parent_path, const std::function<tarvex_result_t(item_record&)>& each) {
  if (document == nullptr) return error_generic(place, "No metadata response after upload.");
  json_t* const entries = json_object_get(document, "entries");
  for (size_t i = 0; i < json_array_size(entries); ++i) {  // 0 for anything but an array
    item_record item;
    tarvex_result_t result = item_parse(place, json_array_get(entries, i), item);
    if (result == TARVEX_SUCCESS && each) result = each(item);
    if (result == TARVEX_SUCCESS) result = item_cache(box, place, item, parent_path);
    if (result != TARVEX_SUCCESS) return result;
  }
  return TARVEX_SUCCESS;
}

}  // namespace tarvex::box
