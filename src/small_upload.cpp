#include "small_upload.h"

#include <array>
#include <cstdio>
#include <cstring>

namespace tarvex::box {

tarvex_result_t small_upload_content_type(std::string& content_type) {
  tarvex_uuid_t uuid{};
  if (const int code = tarvex_uuid_create(&uuid); code != 0) return error_system(code, "uuid");
  std::array<char, 78> text{};
  (void)std::snprintf(text.data(), text.size(), "multipart/form-data; boundary=tarvex_%36s", uuid.text);
  content_type = text.data();
  return TARVEX_SUCCESS;
}

c_string small_upload_attributes(const json_ptr& document, const std::string& modtime) {
  if (document && !modtime.empty()) {
    json_object_set_new(document.get(), "content_modified_at", json_string(modtime.c_str()));
  }
  return c_string(json_dumps(document.get(), JSON_COMPACT));
}

tarvex_result_t small_upload_post(tarvex_box_session_t* box, const error_source& source, const small_upload& upload,
                                  answer& out) {
  const std::string disposition = "form-data; name=\"file\"; filename=\"" + upload.name + "\"";
  std::array attributes_header = {pair("Content-Disposition", "form-data; name=\"attributes\"")};
  std::array file_header = {pair("Content-Disposition", disposition.c_str()),
                            pair("Content-Type", "application/octet-stream")};
  tarvex_dsi_rest_write_block_arg_t block = {.block_data = upload.attributes.get(),
                                             .block_len = std::strlen(upload.attributes.get())};
  std::array parts = {
      tarvex_dsi_rest_write_part_t{.header = {attributes_header.size(), attributes_header.data()},
                                   .data_write_callback = tarvex_dsi_rest_write_block,
                                   .data_write_callback_arg = &block},
      tarvex_dsi_rest_write_part_t{.header = {file_header.size(), file_header.data()},
                                   .data_write_callback = upload.write,
                                   .data_write_callback_arg = upload.write_arg},
  };
  tarvex_dsi_rest_write_multipart_arg_t multipart = {.num_parts = parts.size(), .parts = parts.data()};
  request call = {
      .source = source,
      .method = "POST",
      .url = upload.url,
      .query = {{"fields", ITEM_FIELDS}},
      .headers = {{"Content-Type", upload.content_type}},
      .write = tarvex_dsi_rest_write_multipart,
      .write_arg = &multipart,
      .attempts = upload.attempts,
      .pacing = &box->user_upload_retry,
  };
  call.headers.insert(call.headers.end(), upload.headers.begin(), upload.headers.end());
  return request_perform(box, call, out);
}

}  // namespace tarvex::box
