#include "digest.h"
#include "recv.h"
#include "trace.h"

using tarvex::box::error_ftp;
using tarvex::box::error_generic;

namespace {

/// The session that an earlier store of the path left. One whose commit was tried has no parts to continue with.
tarvex_box_upload_session_t* tarvex_l_box_resumable(tarvex_box_session_t* box, const char* path) {
  tarvex_box_upload_session_t* const upload = tarvex_box_upload_state_query(&box->upload_state, path);
  return upload != nullptr && upload->part_array != nullptr ? upload : nullptr;
}

tarvex_result_t tarvex_l_box_recv_chunked(tarvex_gfs_operation_t op, tarvex_gfs_transfer_info_t* info,
                                          tarvex_box_session_t* box, tarvex_box_path_info_t* parent) {
  tarvex_box_upload_session_t* upload = nullptr;
  tarvex_result_t result = TARVEX_SUCCESS;
  if (info->truncate) {
    result = tarvex_i_box_create_upload_session(box, info, parent, &upload);
  } else if (upload = tarvex_l_box_resumable(box, info->pathname); upload == nullptr) {
    result = error_ftp(553, "MULTI_PART_UPLOAD_NOT_FOUND", nullptr);
  }
  // Whatever fails from here on, the session stays, so that the store can be restarted.
  if (result == TARVEX_SUCCESS) result = tarvex_i_box_upload_parts(op, box, info, upload);
  if (result == TARVEX_SUCCESS) result = tarvex_box_token_refresh(box, op);
  if (result == TARVEX_SUCCESS) result = tarvex_i_box_commit_upload(op, box, info, parent, upload);
  if (result != TARVEX_SUCCESS) return result;
  return tarvex_box_upload_state_remove(&box->upload_state, info->pathname);
}

}  // namespace

extern "C" tarvex_result_t tarvex_i_box_recv_chunked(tarvex_gfs_operation_t op, tarvex_gfs_transfer_info_t* info,
                                                     tarvex_box_session_t* box, tarvex_box_path_info_t* parent) {
  return tarvex::box::traced([&] { return tarvex_l_box_recv_chunked(op, info, box, parent); });
}
