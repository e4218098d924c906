#include "content_location.h"

#include <strings.h>

#include <string_view>

namespace tarvex::box {

namespace {

/// Success for a redirect (302) alone.
verdict tarvex_l_box_judge_redirect(const tarvex_dsi_rest_response_arg_t& response, json_t* document,
                                    unsigned long& retry_after) {
  verdict judged;
  if (response.response_code == 302) return judged;
  judged.result = tarvex_box_translate_response(&response, document, &judged.retryable, &retry_after);
  return judged;
}

bool tarvex_l_box_has_scheme(const std::string& url, std::string_view scheme) {
  return url.size() > scheme.size() && strncasecmp(url.c_str(), scheme.data(), scheme.size()) == 0;
}

/// The token goes over TLS, or where the API has none either.
bool tarvex_l_box_token_may_go(const std::string& url) {
  if (tarvex_l_box_has_scheme(url, "https://")) return true;
  return tarvex_l_box_has_scheme(api_url({}), "http://") && tarvex_l_box_has_scheme(url, "http://");
}

}  // namespace

tarvex_result_t content_location(tarvex_box_session_t* box, const error_place& place, const char* id,
                                 const std::vector<request_header>& range, int& shared_retries, answer& out) {
  const request call = {.source = place.source,
                        .url = api_url({"/2.0/files/", id, "/content"}),
                        .headers = range,
                        .wants_location = true,
                        .shared_retries = &shared_retries,
                        .pacing = &box->user_retry,
                        .judge = tarvex_l_box_judge_redirect};
  if (const tarvex_result_t result = request_perform(box, call, out); result != TARVEX_SUCCESS) return result;
  if (out.location.empty()) {
    return error_generic(place, "Box named no download address for the file (its answer had no Location header).");
  }
  if (tarvex_l_box_token_may_go(out.location)) return TARVEX_SUCCESS;
  return error_generic(place, "Box named a download address that is not https; the access token is not sent there.");
}

std::vector<request_header> range_headers(tarvex_off_t offset, tarvex_off_t length) {
  const std::string first = std::to_string(offset);
  if (length != -1) return {{"Range", "bytes=" + first + "-" + std::to_string(offset + length - 1)}};
  if (offset != 0) return {{"Range", "bytes=" + first + "-"}};
  return {};
}

}  // namespace tarvex::box
