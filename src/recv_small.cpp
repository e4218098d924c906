#include "recv.h"
#include "trace.h"

#include <array>
#include <cstdio>
#include <cstring>

using tarvex::c_string;
using tarvex::box::json_ptr;
using tarvex::box::pair;
using tarvex::box::request;

namespace {

constexpr tarvex::box::error_source RECV_SMALL_SOURCE("tarvex_i_box_recv_small");

/// Content-Type with a boundary of its own.
tarvex_result_t tarvex_l_box_content_type(std::string& content_type) {
  tarvex_uuid_t uuid{};
  if (const int code = tarvex_uuid_create(&uuid); code != 0) return tarvex::box::error_system(code, "uuid");
  std::array<char, 78> text{};
  (void)std::snprintf(text.data(), text.size(), "multipart/form-data; boundary=tarvex_%36s", uuid.text);
  content_type = text.data();
  return TARVEX_SUCCESS;
}

/// The attributes part as text; null when the name is no UTF-8.
c_string tarvex_l_box_attributes(const std::string& name, const char* parent_id, const std::string& modtime) {
  const json_ptr attributes = tarvex::box::placement(name, parent_id);
  if (attributes && !modtime.empty()) {
    json_object_set_new(attributes.get(), "content_modified_at", json_string(modtime.c_str()));
  }
  return c_string(json_dumps(attributes.get(), JSON_COMPACT));
}

/// What the one request sends besides the client's data.
struct small_upload {
  std::string name;
  std::string content_type;
  c_string attributes;
  tarvex_dsi_rest_gridftp_op_arg_t data{};
};

/// One attempt: the data channel cannot be read twice.
tarvex_result_t tarvex_l_box_post(tarvex_box_session_t* box, small_upload& upload, tarvex::box::answer& out) {
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
                                   .data_write_callback = tarvex_dsi_rest_write_gridftp_op,
                                   .data_write_callback_arg = &upload.data},
  };
  tarvex_dsi_rest_write_multipart_arg_t multipart = {.num_parts = parts.size(), .parts = parts.data()};
  const request call = {
      .source = RECV_SMALL_SOURCE,
      .method = "POST",
      .url = tarvex::box::upload_url({"/api/2.0/files/content"}),
      .query = {{"fields", tarvex::box::ITEM_FIELDS}},
      .headers = {{"Content-Type", upload.content_type}},
      .write = tarvex_dsi_rest_write_multipart,
      .write_arg = &multipart,
      .attempts = 1,
      .pacing = &box->user_upload_retry,
  };
  return request_perform(box, call, out);
}

tarvex_result_t tarvex_l_box_recv_small(tarvex_gfs_operation_t op, const tarvex_gfs_transfer_info_t* info,
                                        tarvex_box_session_t* box, const tarvex_box_path_info_t* parent) {
  small_upload upload;
  upload.data.op = op;
  tarvex_gridftp_server_get_write_range(op, &upload.data.offset, &upload.data.length);
  std::string modtime;
  tarvex_result_t result = tarvex::box::recv_modification_time(op, modtime);
  if (result == TARVEX_SUCCESS) result = tarvex_l_box_content_type(upload.content_type);
  if (result != TARVEX_SUCCESS) return result;
  upload.name = tarvex::box::path_split(info->pathname, RECV_SMALL_SOURCE.function).name;
  upload.attributes = tarvex_l_box_attributes(upload.name, parent->id, modtime);
  if (!upload.attributes) return tarvex::box::error_name();
  tarvex_gridftp_server_begin_transfer(op, 0, nullptr);
  tarvex::box::answer stored;
  result = tarvex_l_box_post(box, upload, stored);
  if (result != TARVEX_SUCCESS) return result;
  return tarvex::box::recv_entries_store(box, RECV_SMALL_SOURCE, stored.document.get(), parent->name);
}

}  // namespace

extern "C" tarvex_result_t tarvex_i_box_recv_small(tarvex_gfs_operation_t op, tarvex_gfs_transfer_info_t* info,
                                                   tarvex_box_session_t* box, tarvex_box_path_info_t* parent) {
  return tarvex::box::traced([&] { return tarvex_l_box_recv_small(op, info, box, parent); });
}
