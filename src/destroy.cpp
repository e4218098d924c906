#include "destroy.h"

#include "trace.h"

#include <cstdlib>

namespace {

void tarvex_l_box_upload_state_destroy(tarvex_hashtable_t* table) {
  // The table starts with the root's path record under "/", which is no upload session: that one goes first.
  char root[] = "/";
  tarvex_box_path_info_free(static_cast<tarvex_box_path_info_t*>(tarvex_hashtable_remove(table, root)));
  tarvex_hashtable_destroy_all(
      table, [](void* datum) { tarvex_box_upload_session_free(static_cast<tarvex_box_upload_session_t*>(datum)); });
}

}  // namespace

namespace tarvex::box {

void session_release(tarvex_box_session_t* session) noexcept {
  if (session == nullptr) return;
  tarvex_hashtable_destroy_all(
      &session->cache, [](void* datum) { tarvex_box_path_info_free(static_cast<tarvex_box_path_info_t*>(datum)); });
  tarvex_l_box_upload_state_destroy(&session->upload_state);
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
