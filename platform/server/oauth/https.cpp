#include "oauth/https.h"

#include "base/number.h"
#include "base/text.h"
#include "tarvex_common.hpp"

#include <curl/curl.h>
#include <poll.h>

#include <cstring>
#include <ctime>
#include <string_view>
#include <utility>

namespace tarvex::server {

namespace {

using curl_handle = owner<CURL, curl_easy_cleanup>;
using curl_headers = owner<curl_slist, curl_slist_free_all>;

constexpr long CONNECT_LIMIT_S = 15;

/// One request on its way.
struct exchange_state {
  const https_request& request;
  std::string body;
  bool too_long = false;
};

std::size_t take_body(char* bytes, std::size_t, std::size_t count, void* of) {
  auto& state = *static_cast<exchange_state*>(of);
  state.too_long = state.body.size() + count > https_answer::ANSWER_MAX;
  if (state.too_long) return 0;
  state.body.append(bytes, count);
  return count;
}

bool is_readable(int fd) {
  pollfd awaited = {fd, POLLIN, 0};
  return fd >= 0 && poll(&awaited, 1, 0) > 0;
}

/// Called about once a second.
int look_for_cancel(void* of, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  return is_readable(static_cast<exchange_state*>(of)->request.cancel_fd) ? 1 : 0;
}

void set_request(CURL* handle, const https_setup& setup, exchange_state& state) {
  const https_request& request = state.request;
  curl_easy_setopt(handle, CURLOPT_URL, request.url.c_str());
  curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT, CONNECT_LIMIT_S);
  curl_easy_setopt(handle, CURLOPT_TIMEOUT, static_cast<long>(request.limit.count()));
  curl_easy_setopt(handle, CURLOPT_USERAGENT, "tarvex-gridftp-server/" TARVEX_VERSION);
  curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, take_body);
  curl_easy_setopt(handle, CURLOPT_WRITEDATA, &state);
  curl_easy_setopt(handle, CURLOPT_XFERINFOFUNCTION, look_for_cancel);
  curl_easy_setopt(handle, CURLOPT_XFERINFODATA, &state);
  curl_easy_setopt(handle, CURLOPT_NOPROGRESS, 0L);
  // A connection is closed behind each request: they are minutes apart, and one that died meanwhile would have the
  // request sent again by itself, which is this program's to decide.
  curl_easy_setopt(handle, CURLOPT_FORBID_REUSE, 1L);
  if (!setup.ca_file.empty()) curl_easy_setopt(handle, CURLOPT_CAINFO, setup.ca_file.c_str());
  if (!setup.proxy.empty()) curl_easy_setopt(handle, CURLOPT_PROXY, setup.proxy.c_str());
  if (request.form == nullptr) return;
  curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.form->size()));
  curl_easy_setopt(handle, CURLOPT_POSTFIELDS, request.form->c_str());
}

/// A header of the answer; nothing when it has none.
std::optional<std::string> header_of(CURL* handle, const char* name) {
  curl_header* found = nullptr;
  if (curl_easy_header(handle, name, 0, CURLH_HEADER, -1, &found) != CURLHE_OK) return std::nullopt;
  return std::string(found->value);
}

std::optional<std::chrono::sys_seconds> parse_date(const std::optional<std::string>& text) {
  const std::time_t when = text ? curl_getdate(text->c_str(), nullptr) : -1;
  if (when < 0) return std::nullopt;
  return std::chrono::sys_seconds(std::chrono::seconds(when));
}

}  // namespace

https_answer https_ask(const https_setup& setup, const https_request& request) {
  const curl_handle handle(curl_easy_init());
  if (!handle) return {.error = "there is no memory for a request"};
  exchange_state state{.request = request, .body = {}};
  set_request(handle.get(), setup, state);
  curl_headers headers;
  secret authorisation("Authorization: Bearer " + request.bearer);
  if (!request.bearer.empty()) headers.reset(curl_slist_append(nullptr, authorisation.text().c_str()));
  if (headers) curl_easy_setopt(handle.get(), CURLOPT_HTTPHEADER, headers.get());
  const CURLcode code = curl_easy_perform(handle.get());
  if (headers) explicit_bzero(headers->data, std::strlen(headers->data));
  https_answer answer;
  if (code != CURLE_OK) {
    wipe(state.body);
    answer.error = state.too_long ? "the answer is too long to be one" : curl_easy_strerror(code);
    return answer;
  }
  long status = 0;
  curl_easy_getinfo(handle.get(), CURLINFO_RESPONSE_CODE, &status);
  answer.status = static_cast<int>(status);
  answer.body = secret(std::move(state.body));
  answer.date = parse_date(header_of(handle.get(), "Date"));
  if (const auto wait = header_of(handle.get(), "Retry-After")) answer.retry_after_s = parse_number<unsigned>(*wait);
  return answer;
}

std::string query_encode(const std::string& text) {
  constexpr std::string_view UNRESERVED = "-._~";
  constexpr std::string_view DIGITS = "0123456789ABCDEF";
  std::string out;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (is_alphanumeric(c) || UNRESERVED.find(c) != std::string_view::npos) {
      out.push_back(c);
    } else {
      out.append({'%', DIGITS[byte >> 4U], DIGITS[byte & 0xfU]});
    }
  }
  return out;
}

secret form_encode(const std::vector<std::pair<std::string, std::string>>& pairs) {
  std::string form;
  for (const auto& [name, value] : pairs) {
    secret encoded(query_encode(value));
    form.append(form.empty() ? "" : "&").append(name).append("=").append(encoded.text());
  }
  return secret(std::move(form));
}

}  // namespace tarvex::server
