#include "destroy.h"
#include "shared_file.h"
#include "trace.h"

#include <cstdlib>
#include <cstring>
#include <string>

using tarvex::c_string;
using tarvex::box::error_ftp;
using tarvex::box::session_ptr;

namespace {

tarvex_result_t tarvex_l_box_read_policy(tarvex_gfs_operation_t op) {
  char* text = nullptr;
  const tarvex_result_t result = tarvex_gridftp_server_get_config_data(op, "config", &text);
  const c_string policy(text);
  if (result != TARVEX_SUCCESS) return result;
  if (!policy) return error_ftp(500, "INTERNAL_ERROR", "GridFTP-Error: Missing storage gateway policy.");
  return tarvex_box_config_parse_json(text, &tarvex_i_box_api_per_second);
}

tarvex_result_t tarvex_l_box_obtain_token(tarvex_box_session_t* session, tarvex_gfs_operation_t op) {
  const tarvex_result_t result = tarvex_box_token_refresh(session, op);
  if (session->access_token != nullptr) return result;
  // Without any credential the refresh speaks of a failed renewal, and of nothing else with details.
  const bool renewal = tarvex_box_error_get_info(tarvex_error_peek(result), "Box-Details") != nullptr;
  if (result != TARVEX_SUCCESS && !renewal) return result;
  tarvex_result_release(result);
  return error_ftp(500, "INTERNAL_ERROR", "GridFTP-Error: User's Box credentials are not available.");
}

/// The directory of the pacing files' directories.
void tarvex_l_box_make_directory() {
  char* expanded = nullptr;
  tarvex_result_release(tarvex_box_evaluate_path("$HOME/.tarvex", &expanded));
  const c_string path(expanded);
  if (path) tarvex::box::directory_ensure(path.get());
}

void tarvex_l_box_open_pacing(tarvex_box_session_t* session) {
  const std::string user = session->user_id;
  tarvex_i_box_retry_state_create(user.c_str(), tarvex_i_box_api_per_second, &session->user_retry);
  tarvex_i_box_retry_state_create((user + "u").c_str(), tarvex_i_box_upload_per_second, &session->user_upload_retry);
}

tarvex_result_t tarvex_l_box_start(tarvex_gfs_operation_t op, const tarvex_gfs_session_info_t* session_info,
                                   session_ptr& session) {
  session.reset(static_cast<tarvex_box_session_t*>(std::calloc(1, sizeof(tarvex_box_session_t))));
  if (!session) return tarvex::box::error_memory();
  if (session_info->username != nullptr) session->username = strdup(session_info->username);
  tarvex_result_t result = tarvex_l_box_read_policy(op);
  if (result == TARVEX_SUCCESS) result = tarvex_l_box_obtain_token(session.get(), op);
  if (result != TARVEX_SUCCESS) return result;
  tarvex_l_box_make_directory();
  tarvex_l_box_open_pacing(session.get());
  result = tarvex_box_path_cache_init(&session->cache);
  // Made like the path cache, root record included: it is harmless there, and taken out at the end.
  if (result == TARVEX_SUCCESS) result = tarvex_box_path_cache_init(&session->upload_state);
  if (result == TARVEX_SUCCESS) result = tarvex_box_get_folder_items(session.get(), "0", "/", nullptr, nullptr);
  if (result != TARVEX_SUCCESS) return result;
  // A server that does not take the announcement computes checksums itself.
  tarvex_result_release(tarvex_gridftp_server_set_checksum_support(op, "SHA1:1;MD5:8;"));
  return TARVEX_SUCCESS;
}

}  // namespace

extern "C" void tarvex_i_box_start(tarvex_gfs_operation_t op, tarvex_gfs_session_info_t* session_info) {
  TARVEX_BOX_LOG(TARVEX_BOX_TRACE, __func__, "enter\n");
  session_ptr session;
  const tarvex_result_t result = tarvex::box::guarded([&] { return tarvex_l_box_start(op, session_info, session); });
  if (result == TARVEX_SUCCESS) {
    tarvex_gridftp_server_finished_session_start(op, result, session.release(), nullptr, "/");
    return;  // without an exit line
  }
  session.reset();
  tarvex::box::report_result(result, [&](tarvex_result_t failure) {
    tarvex_gridftp_server_finished_session_start(op, failure, nullptr, nullptr, nullptr);
  });
}
