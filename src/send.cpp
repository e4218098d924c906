#include "content_location.h"
#include "trace.h"

using tarvex::box::answer;
using tarvex::box::request;
using tarvex::box::request_header;

namespace {

constexpr tarvex::box::error_source SEND_SOURCE("tarvex_i_box_send");

/// Streams the content at `url` into the operation. No delay: the token's request before it was paced.
tarvex_result_t tarvex_l_box_download(tarvex_box_session_t* box, const std::string& url,
                                      const std::vector<request_header>& range, int& retries,
                                      tarvex_dsi_rest_gridftp_op_arg_t target) {
  const request call = {
      .source = SEND_SOURCE,
      .url = url,
      .headers = range,
      .reads_document = false,
      .read = tarvex_dsi_rest_read_gridftp_op,
      .read_arg = &target,
      .shared_retries = &retries,
      .delayed = false,
      .before_attempt = [&] { target.eof = false; },
  };
  answer ignored;
  return tarvex::box::request_perform(box, call, ignored);
}

tarvex_result_t tarvex_l_box_send_range(tarvex_gfs_operation_t op, tarvex_box_session_t* box, const char* id,
                                        tarvex_off_t start_byte, tarvex_off_t byte_count) {
  const auto range = tarvex::box::range_headers(start_byte, byte_count);
  int retries = 1;  // for the content request and the download together, on purpose
  answer content;
  const tarvex_result_t result = tarvex::box::content_location(box, SEND_SOURCE, id, range, retries, content);
  if (result != TARVEX_SUCCESS) return result;
  return tarvex_l_box_download(box, content.location, range, retries,
                               {.op = op, .offset = start_byte, .length = byte_count, .eof = false});
}

/// Ends what the REST client remembers of the operation, before it is finished.
struct reading_scope {
  tarvex_gfs_operation_t op;
  ~reading_scope() { tarvex_dsi_rest_operation_over(op); }
};

tarvex_result_t tarvex_l_box_send(tarvex_gfs_operation_t op, tarvex_box_session_t* box, const char* pathname) {
  tarvex_box_path_info_t* path_info = nullptr;
  tarvex_result_t result = tarvex_box_token_refresh(box, op);
  if (result == TARVEX_SUCCESS) result = tarvex_box_path_resolve(box, pathname, &path_info, nullptr);
  if (result != TARVEX_SUCCESS) return result;
  const reading_scope scope = {op};
  tarvex_gridftp_server_begin_transfer(op, 0, nullptr);
  tarvex_off_t start_byte = 0;
  tarvex_off_t byte_count = 0;
  do {
    tarvex_gridftp_server_get_read_range(op, &start_byte, &byte_count);
    if (byte_count == 0) return TARVEX_SUCCESS;
    result = tarvex_l_box_send_range(op, box, path_info->id, start_byte, byte_count);
  } while (result == TARVEX_SUCCESS && byte_count >= 1);
  return result;
}

}  // namespace

extern "C" void tarvex_i_box_send(tarvex_gfs_operation_t op, tarvex_gfs_transfer_info_t* transfer_info,
                                  void* user_arg) {
  auto* const box = static_cast<tarvex_box_session_t*>(user_arg);
  tarvex::box::reported([&] { return tarvex_l_box_send(op, box, transfer_info->pathname); },
                        [&](tarvex_result_t result) { tarvex_gridftp_server_finished_transfer(op, result); });
}
