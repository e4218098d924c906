#include "digest.h"
#include "recv.h"
#include "text.h"
#include "trace.h"
#include "version.h"

#include <cstring>
#include <utility>

using tarvex::c_string;
using tarvex::box::error_generic;
using tarvex::box::json_ptr;
using tarvex::box::request;

namespace {

constexpr tarvex::box::error_source COMMIT_UPLOAD_SOURCE("tarvex_i_box_commit_upload");

/// 202: Box is still putting the parts together. The waits grow on their own: 1, 3, 7, 15 seconds.
tarvex::box::verdict tarvex_l_box_judge_commit(const tarvex_dsi_rest_response_arg_t& response, json_t* document,
                                               unsigned long& retry_after) {
  if (response.response_code != tarvex::box::STATUS_ACCEPTED)
    return tarvex::box::judge_status(response, document, retry_after);
  retry_after = retry_after * 2 + 1;
  return {.result = error_generic(COMMIT_UPLOAD_SOURCE, "Upload is not ready to commit."), .retryable = true};
}

/// The digests of the whole file.
struct file_digests {
  std::string header;  ///< the SHA-1, as the request has it
  std::string sha1;    ///< in hex
  std::string md5;     ///< likewise, as the property has it
};

tarvex_result_t tarvex_l_box_file_digests(tarvex_box_upload_session_t* upload, file_digests& digests) {
  tarvex::box::sha1_digest sha1{};
  tarvex::box::md5_digest md5{};
  if (!tarvex::box::sha1_finish(upload->sha1_ctx, sha1)) {
    return error_generic(COMMIT_UPLOAD_SOURCE, "Failed finalizing file sha1 hash.");
  }
  if (!tarvex::box::md5_finish(upload->md5_ctx, md5))
    return error_generic(COMMIT_UPLOAD_SOURCE, "Failed finalizing file md5 hash.");
  digests = {.header = tarvex::box::digest_header(sha1),
             .sha1 = tarvex::box::hex_text(sha1),
             .md5 = tarvex::box::hex_text(md5)};
  return TARVEX_SUCCESS;
}

bool tarvex_l_box_replaces(const tarvex_box_upload_session_t& upload) {
  return tarvex_i_box_replace_as_version == 1 && upload.replaces;
}

/// The body's text; the part list goes over to it, so that the record holds none from here on.
c_string tarvex_l_box_commit_body(tarvex_box_upload_session_t* upload, const std::string& modtime) {
  const json_ptr body(json_object());
  if (!modtime.empty()) {
    json_object_set_new(body.get(), "attributes", json_pack("{s:s}", "content_modified_at", modtime.c_str()));
  }
  json_object_set_new(body.get(), "parts", std::exchange(upload->part_array, nullptr));
  return c_string(json_dumps(body.get(), JSON_COMPACT));
}

tarvex_result_t tarvex_l_box_commit_post(tarvex_box_session_t* box, const tarvex_box_upload_session_t& upload,
                                         const char* body, const std::string& digest, tarvex::box::answer& out) {
  tarvex_dsi_rest_write_block_arg_t block = {.block_data = body, .block_len = std::strlen(body)};
  request call = {
      .source = COMMIT_UPLOAD_SOURCE,
      .method = "POST",
      .url = tarvex::box::upload_url({"/api/2.0/files/upload_sessions/", upload.id, "/commit"}),
      .query = {{"fields", tarvex::box::ITEM_FIELDS}},
      .headers = {{"Content-Type", "application/json"},
                  {"Content-Length", std::to_string(block.block_len)},
                  {"Transfer-Encoding", ""},
                  {"digest", digest}},
      .write = tarvex_dsi_rest_write_block,
      .write_arg = &block,
      .attempts = tarvex_i_box_commit_attempts,
      .pacing = nullptr,
      .judge = tarvex_l_box_judge_commit,
  };
  if (tarvex_l_box_replaces(upload)) tarvex::box::version_condition(upload.next_etag, call.headers);
  return request_perform(box, call, out);
}

/// What the commit made, with its MD5 as a property, into the path cache. \param result  of the commit; taken over
tarvex_result_t tarvex_l_box_commit_settle(tarvex_box_session_t* box, const tarvex_box_path_info_t& parent,
                                           const tarvex_box_upload_session_t& upload, const file_digests& digests,
                                           tarvex_result_t result, const tarvex::box::answer& stored) {
  if (tarvex_l_box_replaces(upload)) {
    auto target = tarvex::box::version_target_at(box, upload.name, parent).value_or(tarvex::box::version_target{});
    target.next_etag = upload.next_etag;  // the parts were sent in the belief that the file is as it was then
    return version_settle(box, COMMIT_UPLOAD_SOURCE, {upload.name, parent, target, digests.sha1, digests.md5}, result,
                          stored);
  }
  if (result != TARVEX_SUCCESS) return result;
  return tarvex::box::recv_entries_store(
      box, COMMIT_UPLOAD_SOURCE, stored.document.get(), parent.name, [&](tarvex::box::item_record& item) {
        const tarvex_result_t kept = tarvex_i_box_set_metadata(box, &item, "tarvex-md5", digests.md5.c_str());
        if (kept == TARVEX_SUCCESS) tarvex::box::text_replace(item.md5, digests.md5.c_str());
        return kept;
      });
}

tarvex_result_t tarvex_l_box_commit(tarvex_gfs_operation_t op, tarvex_box_session_t* box,
                                    const tarvex_box_path_info_t& parent, tarvex_box_upload_session_t* upload) {
  std::string modtime;
  file_digests digests;
  tarvex_result_t result = tarvex::box::recv_modification_time(op, modtime);
  if (result == TARVEX_SUCCESS) result = tarvex_l_box_file_digests(upload, digests);
  if (result != TARVEX_SUCCESS) return result;
  const c_string body = tarvex_l_box_commit_body(upload, modtime);
  if (!body) return tarvex::box::error_memory();
  tarvex::box::answer stored;
  result = tarvex_l_box_commit_post(box, *upload, body.get(), digests.header, stored);
  if (tarvex_i_box_abort_sessions == 1) upload->refused = stored.status >= 400 && !stored.uncertain;
  return tarvex_l_box_commit_settle(box, parent, *upload, digests, result, stored);
}

}  // namespace

extern "C" tarvex_result_t tarvex_i_box_commit_upload(tarvex_gfs_operation_t op, tarvex_box_session_t* box,
                                                      tarvex_gfs_transfer_info_t*, tarvex_box_path_info_t* parent,
                                                      tarvex_box_upload_session_t* upload) {
  return tarvex::box::traced([&] { return tarvex_l_box_commit(op, box, *parent, upload); });
}
