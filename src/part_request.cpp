#include "part_request.h"

namespace tarvex::box {

namespace {

/// Longest Authorization value of a part.
constexpr size_t AUTHORIZATION_LIMIT = 4106;

/// "bytes FIRST-LAST/TOTAL" of a part.
std::string tarvex_l_box_content_range(const tarvex_box_upload_session_t& upload, const part_content& part) {
  const uint64_t first = part_offset(upload, part.index);
  const auto number = [](uint64_t value) { return std::to_string(static_cast<int64_t>(value)); };
  return "bytes " + number(first) + "-" + number(first + part.length - 1) + "/" + number(upload.total_size);
}

}  // namespace

uint64_t part_offset(const tarvex_box_upload_session_t& upload, int index) {
  return static_cast<uint64_t>(index) * upload.part_size;
}

std::string part_url(const tarvex_box_upload_session_t& upload) {
  return upload_url({"/api/2.0/files/upload_sessions/", upload.id});
}

request part_request(const error_source& source, const tarvex_box_upload_session_t& upload, const part_content& part,
                     tarvex_dsi_rest_write_block_arg_t& block) {
  block = {.block_data = part.data, .block_len = part.length};
  return {
      .source = source,
      .method = "PUT",
      .url = part_url(upload),
      .headers = {{"Content-Type", "application/octet-stream"},
                  {"Content-Range", tarvex_l_box_content_range(upload, part)},
                  {"digest", digest_header(part.sha1)}},  // in lower case on purpose
      .write = tarvex_dsi_rest_write_block,
      .write_arg = &block,
      .delayed = false,
      .authorization_limit = AUTHORIZATION_LIMIT,
      .progress_timeout_ms = 2 * tarvex_i_box_progress_timeout_ms,
  };
}

}  // namespace tarvex::box
