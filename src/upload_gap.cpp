#include "upload_gap.h"

#include <algorithm>
#include <string>

namespace tarvex::box {

uint64_t upload_gap(const tarvex_box_upload_session_t& upload) {
  return std::min(json_array_size(upload.part_array) * upload.part_size, upload.total_size);
}

void upload_gap_note(tarvex_box_upload_session_t& upload, int index, json_t* record) noexcept {
  if (upload.parts_beyond == nullptr) upload.parts_beyond = json_object();
  (void)json_object_set(upload.parts_beyond, std::to_string(index).c_str(), record);
}

json_t* upload_gap_find(const tarvex_box_upload_session_t& upload, int index) {
  return json_object_get(upload.parts_beyond, std::to_string(index).c_str());
}

tarvex_result_t upload_gap_refusal(const tarvex_box_upload_session_t& upload) {
  const std::string message = "This upload can go on at byte " + std::to_string(upload_gap(upload)) + " only.";
  return error_ftp(553, "APPEND_NOT_SUPPORTED", message.c_str());
}

tarvex_result_t upload_gap_name(const tarvex_box_upload_session_t& upload, tarvex_result_t failure) {
  const std::string offset = std::to_string(upload_gap(upload));
  tarvex_object_t* const named = error_info({pair("Box-Upload-Offset", offset.c_str())});
  if (named == nullptr) return failure;
  tarvex_error_set_cause(named, tarvex_error_get(failure));
  return tarvex_error_put(named);
}

}  // namespace tarvex::box
