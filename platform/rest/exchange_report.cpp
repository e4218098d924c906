#include "exchange_report.h"

#include <strings.h>

#include <charconv>
#include <string_view>

namespace tarvex::rest {
namespace {

const tarvex_exchange_observer_t* find_observer() {
  return static_cast<const tarvex_exchange_observer_t*>(
      tarvex_extension_registry_lookup(&tarvex_i_exchange_observer_registry, TARVEX_EXCHANGE_OBSERVER_NAME));
}

const char* header_of(const tarvex_dsi_rest_key_array_t* headers, const char* name) {
  for (std::size_t i = 0; headers != nullptr && i < headers->count; ++i) {
    const tarvex_dsi_rest_key_value_t& pair = headers->key_value[i];
    if (pair.key != nullptr && strcasecmp(pair.key, name) == 0) return pair.value;
  }
  return nullptr;
}

std::int64_t number_of(std::string_view text) {
  std::int64_t number = -1;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size() && number >= 0 ? number : -1;
}

std::int64_t number_of(const response_head& head, const char* name) {
  const char* const text = head.find(name);
  return text == nullptr ? -1 : number_of(std::string_view(text));
}

/// What stands behind the "/" of a Content-Range (RFC 9110 section 14.4).
std::int64_t total_of(const response_head& head) {
  const char* const text = head.find("Content-Range");
  if (text == nullptr) return -1;
  const std::string_view range(text);
  const std::size_t slash = range.rfind('/');
  return slash == std::string_view::npos ? -1 : number_of(range.substr(slash + 1));
}

/// The path of an absolute URL.
std::string path_of(const std::string& url) {
  const std::size_t host = url.find("://") + 3;
  const std::size_t path = url.find_first_of("/?", host);
  return path == std::string::npos ? "" : url.substr(path, url.find('?', path) - path);
}

}  // namespace

exchange_report::exchange_report(const char* method, const target& where, const tarvex_dsi_rest_key_array_t* headers,
                                 tarvex_dsi_rest_read_t reader)
    : observer_(find_observer()), host_(where.peer.substr(0, where.peer.rfind(':'))), path_(path_of(where.url)) {
  about_.host = host_.c_str();
  about_.path = path_.c_str();
  about_.method = method;
  about_.request_type = header_of(headers, "Content-Type");
  about_.digest = header_of(headers, "Digest");
  about_.authorised = header_of(headers, "Authorization") != nullptr;
  about_.brings_content = reader != nullptr && reader != tarvex_dsi_rest_read_json;
  about_.retry_after_s = about_.answer_length = about_.total_length = -1;
}

tarvex_result_t exchange_report::ask() const {
  if (observer_ == nullptr || observer_->gate == nullptr) return TARVEX_SUCCESS;
  return observer_->gate(observer_->user_arg, &about_);
}

void exchange_report::tell(const exchange& over) {
  if (observer_ == nullptr || observer_->observe == nullptr) return;
  const response_head& head = over.head();
  about_.status = head.complete() ? head.status() : 0;
  about_.may_have_arrived = about_.status == 0 && over.sent_whole();
  about_.repeated = over.times_sent() > 1;
  about_.retry_after_s = number_of(head, "Retry-After");
  const char* const tag = head.find("ETag");
  about_.validator = tag == nullptr ? head.find("Last-Modified") : tag;
  about_.answer_type = head.find("Content-Type");
  about_.answer_length = number_of(head, "Content-Length");
  about_.total_length = about_.status == 200 ? about_.answer_length : total_of(head);
  about_.received_bytes = over.bytes_received();
  about_.sent_bytes = over.bytes_sent();
  const auto took = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - began_);
  about_.elapsed_us = static_cast<std::uint64_t>(took.count());
  observer_->observe(observer_->user_arg, &about_);
}

}  // namespace tarvex::rest
