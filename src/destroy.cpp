#include "destroy.h"

#include "trace.h"
#include "upload_abort.h"

#include <cstdlib>

namespace {

constexpr tarvex::box::error_source DESTROY_SOURCE("tarvex_i_box_destroy");

/// Whose uploads are released: the table's callback takes no context.
thread_local tarvex_box_session_t* tarvex_l_box_ending = nullptr;

void tarvex_l_box_upload_release(void* datum) {
  auto* const upload = static_cast<tarvex_box_upload_session_t*>(datum);
  if (tarvex_i_box_abort_uploads == 1 || tarvex_i_box_abort_sessions == 1) {
    tarvex::box::upload_abort(tarvex_l_box_ending, DESTROY_SOURCE, *upload);
  }
  tarvex_box_upload_session_free(upload);
}

void tarvex_l_box_upload_state_destroy(tarvex_box_session_t* session) {
  tarvex_hashtable_t* const table = &session->upload_state;
  // The table starts with the root's path record under "/", which is no upload session: that one goes first.
  char root[] = "/";
  tarvex_box_path_info_free(static_cast<tarvex_box_path_info_t*>(tarvex_hashtable_remove(table, root)));
  tarvex_l_box_ending = session;
  tarvex_hashtable_destroy_all(table, tarvex_l_box_upload_release);
  tarvex_l_box_ending = nullptr;
}

}  // namespace

namespace tarvex::box {

void session_release(tarvex_box_session_t* session) noexcept {
  if (session == nullptr) return;
  tarvex_hashtable_destroy_all(
      &session->cache, [](void* datum) { tarvex_box_path_info_free(static_cast<tarvex_box_path_info_t*>(datum)); });
  tarvex_l_box_upload_state_destroy(session);
  for (tarvex_box_retry_t* const retry : {&session->user_retry, &session->user_upload_retry}) {
    if (retry->is) tarvex_i_box_retry_state_destroy(retry);
  }
  std::free(session->username);
  std::free(session->user_id);
  std::free(session->access_token);
  std::free(session);
}

}  // namespace tarvex::box

extern "C" void tarvex_i_box_destroy(void* session) {
  const tarvex::box::trace_scope scope;
  tarvex::box::session_release(static_cast<tarvex_box_session_t*>(session));
  scope.leave();
}
