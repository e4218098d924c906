#include "destroy.h"

#include "request.h"
#include "trace.h"

#include <cstdlib>

namespace {

constexpr tarvex::box::error_source DESTROY_SOURCE("tarvex_i_box_destroy");

/// Whose uploads are released: the table's callback takes no context.
thread_local tarvex_box_session_t* tarvex_l_box_ending = nullptr;

/// Has Box drop what was uploaded. Nobody waits for the answer, and nobody could mend a failure.
void tarvex_l_box_upload_abort(const tarvex_box_upload_session_t& upload) {
  const tarvex::box::request call = {
      .source = DESTROY_SOURCE,
      .method = "DELETE",
      .url = tarvex::box::upload_url({"/api/2.0/files/upload_sessions/", upload.id}),
      .reads_document = false,
      .delayed = false,
      .judge = tarvex::box::judge_final,
  };
  tarvex::box::answer ignored;
  tarvex_result_release(request_perform(tarvex_l_box_ending, call, ignored));
}

void tarvex_l_box_upload_release(void* datum) {
  auto* const upload = static_cast<tarvex_box_upload_session_t*>(datum);
  const bool open = upload->id != nullptr && upload->part_array != nullptr;  // the commit takes the list of parts
  if (open && tarvex_i_box_abort_uploads == 1) {
    tarvex_result_release(tarvex::box::traced([&]() -> tarvex_result_t {
      tarvex_l_box_upload_abort(*upload);
      return TARVEX_SUCCESS;
    }));
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
