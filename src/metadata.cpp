#include "metadata.h"

#include "request.h"
#include "trace.h"

#include <cstring>

using tarvex::c_string;
using tarvex::box::json_ptr;

namespace {

constexpr tarvex::box::error_source METADATA_SOURCE("tarvex_i_box_set_metadata");

/// The first property makes the instance, later ones are patched in.
struct metadata_row {
  const char* method;
  const char* content_type;
};

constexpr metadata_row CREATE = {"POST", "application/json"};
constexpr metadata_row UPDATE = {"PUT", "application/json-patch+json"};

json_ptr tarvex_l_box_property(bool updates, const char* key, const char* value) {
  if (!updates) return json_ptr(json_pack("{s:s}", key, value));
  const std::string path = std::string("/") + key;
  return json_ptr(json_pack("[{s:s, s:s, s:s}]", "op", "add", "path", path.c_str(), "value", value));
}

}  // namespace

namespace tarvex::box {

tarvex_result_t metadata_store(tarvex_box_session_t* box, tarvex_box_path_info_t* path_info, const char* key,
                               const char* value, int& status) {
  const metadata_row& row = path_info->has_metadata ? UPDATE : CREATE;
  const json_ptr property = tarvex_l_box_property(path_info->has_metadata, key, value);
  const c_string body(json_dumps(property.get(), JSON_COMPACT));
  if (!body) return error_memory();
  tarvex_dsi_rest_write_block_arg_t block = {.block_data = body.get(), .block_len = std::strlen(body.get())};
  const request call = {
      .source = METADATA_SOURCE,
      .method = row.method,
      .url = api_url({"/2.0/", item_collection(path_info->type), "/", path_info->id, "/metadata/global/properties"}),
      .headers = {{"Content-Type", row.content_type}},
      .write = tarvex_dsi_rest_write_block,
      .write_arg = &block,
      .pacing = &box->user_retry,
  };
  answer stored;
  const tarvex_result_t result = request_perform(box, call, stored);
  status = stored.status;
  if (result == TARVEX_SUCCESS) path_info->has_metadata = true;
  return result;
}

}  // namespace tarvex::box

extern "C" tarvex_result_t tarvex_i_box_set_metadata(tarvex_box_session_t* box, tarvex_box_path_info_t* path_info,
                                                     const char* key, const char* value) {
  int ignored = 0;
  return tarvex::box::traced([&] { return tarvex::box::metadata_store(box, path_info, key, value, ignored); });
}
