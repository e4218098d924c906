#include "digest.h"
#include "item.h"
#include "trace.h"
#include "version.h"

#include <cstdlib>
#include <cstring>

using tarvex::c_string;
using tarvex::box::error_generic;
using tarvex::box::json_ptr;
using tarvex::box::request;

namespace {

constexpr tarvex::box::error_source UPLOAD_SESSION_SOURCE("tarvex_i_box_create_upload_session");
constexpr tarvex::box::error_source PARSE_SOURCE("tarvex_box_upload_session_parse");

using upload_ptr = tarvex::owner<tarvex_box_upload_session_t, tarvex_box_upload_session_free>;

tarvex_result_t tarvex_l_box_session_parse(json_t* json, tarvex_box_upload_session_t* info) {
  if (const char* const id = json_string_value(json_object_get(json, "id")); id != nullptr) {
    info->id = strdup(id);
    if (info->id == nullptr) return tarvex::box::error_memory();
  }
  json_t* const size = json_object_get(json, "part_size");
  json_t* const count = json_object_get(json, "total_parts");
  if (json_is_integer(size)) info->part_size = static_cast<uint64_t>(json_integer_value(size));
  if (json_is_integer(count)) info->num_parts = static_cast<int>(json_integer_value(count));
  if (json_is_integer(count) && info->num_parts < 1) return error_generic(PARSE_SOURCE, "Invalid number of parts!");
  if (json_is_integer(size) && info->part_size == 0) return error_generic(PARSE_SOURCE, "Invalid part size!");
  return TARVEX_SUCCESS;
}

/// What Box is told of the file. \param target  the file that gets a new version; null: a new one comes into the folder
json_ptr tarvex_l_box_particulars(const tarvex_gfs_transfer_info_t& info, const char* folder_id,
                                  const tarvex::box::version_target* target) {
  const std::string name = tarvex::box::path_split(info.pathname, UPLOAD_SESSION_SOURCE.function).name;
  const auto size = static_cast<json_int_t>(info.alloc_size);
  if (target != nullptr) return json_ptr(json_pack("{s:I, s:s}", "file_size", size, "file_name", name.c_str()));
  return json_ptr(json_pack("{s:s, s:I, s:s}", "folder_id", folder_id, "file_size", size, "file_name", name.c_str()));
}

/// Asks Box for a session.
tarvex_result_t tarvex_l_box_session_post(tarvex_box_session_t* box, const tarvex_gfs_transfer_info_t& info,
                                          const char* folder_id, const tarvex::box::version_target* target,
                                          tarvex::box::answer& out) {
  const c_string body(json_dumps(tarvex_l_box_particulars(info, folder_id, target).get(), JSON_COMPACT));
  if (!body) return tarvex::box::error_name();
  tarvex_dsi_rest_write_block_arg_t block = {.block_data = body.get(), .block_len = std::strlen(body.get())};
  const std::string file = target != nullptr ? target->id + "/" : "";
  const request call = {
      .source = UPLOAD_SESSION_SOURCE,
      .method = "POST",
      .url = tarvex::box::upload_url({"/api/2.0/files/", file.c_str(), "upload_sessions"}),
      .headers = {{"Content-Type", "application/json"},
                  {"Content-Length", std::to_string(block.block_len)},
                  {"Transfer-Encoding", ""}},
      .write = tarvex_dsi_rest_write_block,
      .write_arg = &block,
      .attempts = 3,
      .pacing = &box->user_upload_retry,
  };
  return request_perform(box, call, out);
}

/// Opens a session for a new version of the file at the path, or for a new file where there is none any more.
tarvex_result_t tarvex_l_box_session_open(tarvex_box_session_t* box, const tarvex_gfs_transfer_info_t& info,
                                          const tarvex_box_path_info_t& parent,
                                          std::optional<tarvex::box::version_target>& target,
                                          tarvex::box::answer& out) {
  target = tarvex::box::version_target_at(box, info.pathname, parent);
  if (target) {
    const tarvex_result_t result = tarvex_l_box_session_post(box, info, parent.id, &*target, out);
    if (out.status != tarvex::box::STATUS_NOT_FOUND) return result;
    tarvex_result_release(result);
    tarvex_result_release(tarvex_box_path_cache_remove(&box->cache, info.pathname));
    target.reset();
  }
  return tarvex_l_box_session_post(box, info, parent.id, nullptr, out);
}

/// A zeroed record with what Box says of the session, ready for its first part.
tarvex_result_t tarvex_l_box_session_record(const tarvex_gfs_transfer_info_t& info, json_t* document,
                                            upload_ptr& upload) {
  upload.reset(static_cast<tarvex_box_upload_session_t*>(std::calloc(1, sizeof(tarvex_box_upload_session_t))));
  if (!upload) return tarvex::box::error_memory();
  const tarvex_result_t parsed = tarvex_box_upload_session_parse(document, upload.get());
  if (parsed != TARVEX_SUCCESS) {
    return error_generic(UPLOAD_SESSION_SOURCE, "Failed to parse session info!", tarvex_error_get(parsed));
  }
  upload->name = strdup(info.pathname);
  upload->total_size = info.alloc_size;
  upload->part_array = json_array();
  tarvex::box::md5_begin(upload->md5_ctx);
  tarvex::box::sha1_begin(upload->sha1_ctx);
  return upload->name != nullptr && upload->part_array != nullptr ? tarvex::box::SUCCESS : tarvex::box::error_memory();
}

tarvex_result_t tarvex_l_box_session_create(tarvex_box_session_t* box, const tarvex_gfs_transfer_info_t& info,
                                            const tarvex_box_path_info_t& parent, tarvex_box_upload_session_t** out) {
  if (parent.type != TARVEX_BOX_FOLDER) return tarvex::box::error_path(553, "NOT_A_DIRECTORY", info.pathname);
  tarvex::box::answer created;
  std::optional<tarvex::box::version_target> target;
  tarvex_result_t result = tarvex_l_box_session_open(box, info, parent, target, created);
  if (result != TARVEX_SUCCESS) return result;
  if (!created.document) return tarvex::box::error_memory();
  upload_ptr upload;
  result = tarvex_l_box_session_record(info, created.document.get(), upload);
  if (result != TARVEX_SUCCESS) return result;
  upload->replaces = target.has_value();
  upload->next_etag = target ? target->next_etag : 0;
  result = tarvex_box_upload_state_update(&box->upload_state, upload.get(), upload->name);
  if (result != TARVEX_SUCCESS) {
    tarvex_result_release(result);
    return error_generic(UPLOAD_SESSION_SOURCE, "Failed cache update!");
  }
  *out = upload.release();  // the table's now
  return TARVEX_SUCCESS;
}

}  // namespace

extern "C" {

void tarvex_box_upload_session_free(tarvex_box_upload_session_t* info) {
  if (info == nullptr) return;
  std::free(info->id);
  std::free(info->name);
  json_decref(info->part_array);
  json_decref(info->parts_beyond);
  std::free(info);
}

tarvex_result_t tarvex_box_upload_session_parse(json_t* json, tarvex_box_upload_session_t* info) {
  return tarvex::box::traced([&] { return tarvex_l_box_session_parse(json, info); });
}

tarvex_result_t tarvex_i_box_create_upload_session(tarvex_box_session_t* box, tarvex_gfs_transfer_info_t* info,
                                                   tarvex_box_path_info_t* parent,
                                                   tarvex_box_upload_session_t** upload) {
  return tarvex::box::traced([&] { return tarvex_l_box_session_create(box, *info, *parent, upload); });
}

}  // extern "C"
