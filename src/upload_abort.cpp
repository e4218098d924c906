#include "upload_abort.h"

#include "request.h"
#include "trace.h"

namespace tarvex::box {

namespace {

/// Whether Box holds parts that no commit can have made a file of. The first attempt of a commit takes the list of
/// them.
bool tarvex_l_box_is_left_over(const tarvex_box_upload_session_t& upload) {
  if (upload.id == nullptr) return false;
  return upload.part_array != nullptr || (tarvex_i_box_abort_sessions == 1 && upload.refused);
}

}  // namespace

void upload_abort(tarvex_box_session_t* box, const error_source& source,
                  const tarvex_box_upload_session_t& upload) noexcept {
  if (!tarvex_l_box_is_left_over(upload)) return;
  tarvex_result_release(traced([&]() -> tarvex_result_t {
    const request call = {
        .source = source,
        .method = "DELETE",
        .url = upload_url({"/api/2.0/files/upload_sessions/", upload.id}),
        .reads_document = false,
        .delayed = false,
        .judge = judge_final,
    };
    answer ignored;
    return request_perform(box, call, ignored);
  }));
}

void upload_supersede(tarvex_box_session_t* box, const error_source& source, const char* path) noexcept {
  if (tarvex_i_box_abort_sessions != 1) return;
  const tarvex_box_upload_session_t* const upload = tarvex_box_upload_state_query(&box->upload_state, path);
  if (upload == nullptr) return;
  upload_abort(box, source, *upload);
  tarvex_result_release(tarvex_box_upload_state_remove(&box->upload_state, path));
}

}  // namespace tarvex::box
