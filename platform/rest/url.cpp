#include "url.h"

#include "curl_handles.h"
#include "error.h"
#include "key_array.h"

#include <algorithm>
#include <string_view>

namespace tarvex::rest {
namespace {

std::string get_part(CURLU* url, CURLUPart part) {
  char* text = nullptr;
  if (curl_url_get(url, part, &text, CURLU_DEFAULT_PORT) != CURLUE_OK) return {};
  return curl_string(text).get();
}

tarvex_result_t check_url(const char* uri, std::string& peer) {
  const url_ptr parsed(curl_url());
  if (!parsed) return out_of_memory();
  const CURLUcode code = curl_url_set(parsed.get(), CURLUPART_URL, uri, CURLU_NON_SUPPORT_SCHEME);
  if (code == CURLUE_OUT_OF_MEMORY) return out_of_memory();
  if (code != CURLUE_OK) return fail(attempt::useless, "The URL is not valid: %s", curl_url_strerror(code));
  const std::string scheme = get_part(parsed.get(), CURLUPART_SCHEME);
  if (scheme != "http" && scheme != "https") {
    return fail(attempt::useless, "Only http and https URLs can be requested, not \"%s\".", scheme.c_str());
  }
  peer = get_part(parsed.get(), CURLUPART_HOST) + ":" + get_part(parsed.get(), CURLUPART_PORT);
  return TARVEX_SUCCESS;
}

bool append_encoded(std::string& url, const char* text) {
  if (*text == '\0') return true;
  const curl_string encoded(curl_easy_escape(nullptr, text, 0));
  if (encoded) url.append(encoded.get());
  return encoded != nullptr;
}

bool append_pair(std::string& url, const tarvex_dsi_rest_key_value_t& pair) {
  if (url.back() != '?' && url.back() != '&') url.push_back(url.find('?') == std::string::npos ? '?' : '&');
  if (!append_encoded(url, pair.key)) return false;
  url.push_back('=');
  return append_encoded(url, pair.value);
}

}  // namespace

tarvex_result_t make_target(const char* uri, const tarvex_dsi_rest_key_array_t* query, target& out) {
  if (uri == nullptr) return fail(attempt::useless, "The request has no URL.");
  const std::string_view given = uri;
  if (std::any_of(given.begin(), given.end(), [](unsigned char byte) { return byte < 0x20 || byte == 0x7f; })) {
    return fail(attempt::useless, "The URL is not valid: it holds a control character.");
  }
  if (const tarvex_result_t result = check_url(uri, out.peer); result != TARVEX_SUCCESS) return result;
  out.url = given.substr(0, given.find('#'));  // a fragment is never sent
  for (const auto& pair : pairs_of(query)) {
    if (pair.key == nullptr || pair.value == nullptr) continue;
    if (!append_pair(out.url, pair)) return out_of_memory();
  }
  return TARVEX_SUCCESS;
}

}  // namespace tarvex::rest
