#include "part_lookup.h"

#include <strings.h>

namespace tarvex::box {

namespace {

constexpr error_source LOOKUP_SOURCE("tarvex_i_box_upload_parts");
constexpr json_int_t PAGE_LIMIT = 1000;  // the most that Box gives
constexpr int LOOK_ATTEMPTS = 3;

/// An answer without a list says nothing of what is there.
verdict tarvex_l_box_judge_page(const tarvex_dsi_rest_response_arg_t& response, json_t* document,
                                unsigned long& retry_after) {
  verdict judged = judge_status(response, document, retry_after);
  const bool listed = json_is_array(json_object_get(document, "entries"));
  if (judged.result == TARVEX_SUCCESS && !listed) {
    judged.result = error_generic(LOOKUP_SOURCE, "Box did not list the parts that it has.");
    judged.retryable = true;
  }
  judged.retryable = judged.retryable || response.response_code >= 500;
  return judged;
}

tarvex_result_t tarvex_l_box_page(tarvex_box_session_t* box, const error_source& source, const std::string& url,
                                  json_int_t offset, const std::string& token, answer& out) {
  const std::string from = std::to_string(offset);
  const std::string limit = std::to_string(PAGE_LIMIT);
  const request call = {
      .source = source,
      .url = url + "/parts",
      .query = {{"offset", from.c_str()}, {"limit", limit.c_str()}},
      .attempts = LOOK_ATTEMPTS,
      .judge = tarvex_l_box_judge_page,
      .access_token = token.c_str(),
  };
  return request_perform(box, call, out);
}

/// Looks through one page. \return whether the part was on it
bool tarvex_l_box_find(json_t* entries, const tarvex_box_upload_session_t& upload, const part_content& part,
                       part_look& look) {
  for (size_t i = 0; i < json_array_size(entries); ++i) {
    json_t* const entry = json_array_get(entries, i);
    look.presence = part_compare(entry, upload, part);
    if (look.presence == part_presence::absent) continue;
    look.record.reset(json_incref(entry));
    return true;
  }
  return false;
}

}  // namespace

part_presence part_compare(json_t* record, const tarvex_box_upload_session_t& upload, const part_content& part) {
  json_t* const offset = json_object_get(record, "offset");
  json_t* const size = json_object_get(record, "size");
  const char* const sha1 = json_string_value(json_object_get(record, "sha1"));
  const bool told = json_is_integer(offset) && json_is_integer(size) && sha1 != nullptr;
  if (!told || static_cast<uint64_t>(json_integer_value(offset)) != part_offset(upload, part.index)) {
    return part_presence::absent;
  }
  const bool same = static_cast<uint64_t>(json_integer_value(size)) == part.length &&
                    strcasecmp(hex_text(part.sha1).c_str(), sha1) == 0;
  return same ? part_presence::there : part_presence::other;
}

part_look part_look_up(tarvex_box_session_t* box, const error_source& source, const tarvex_box_upload_session_t& upload,
                       const part_content& part, const std::string& token) {
  const std::string url = part_url(upload);
  part_look look;
  for (json_int_t offset = 0;;) {
    answer page;
    look.failure = owned_result(tarvex_l_box_page(box, source, url, offset, token, page));
    look.status = page.status;
    if (!look.failure.ok()) return look;
    json_t* const entries = json_object_get(page.document.get(), "entries");
    if (tarvex_l_box_find(entries, upload, part, look) || json_array_size(entries) == 0) return look;
    offset += static_cast<json_int_t>(json_array_size(entries));
    json_t* const total = json_object_get(page.document.get(), "total_count");
    if (json_is_integer(total) && offset >= json_integer_value(total)) return look;
  }
}

}  // namespace tarvex::box
