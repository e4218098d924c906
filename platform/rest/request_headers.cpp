#include "request_headers.h"

#include "error.h"
#include "key_array.h"

#include <strings.h>

#include <algorithm>
#include <charconv>
#include <cstring>

namespace tarvex::rest {
namespace {

constexpr std::size_t BOUNDARY_LIMIT = 70;  // RFC 2046 section 5.1.1

bool is_alphanumeric(char byte) noexcept {
  return (byte >= '0' && byte <= '9') || (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z');
}

bool consists_of(std::string_view text, std::string_view extra) noexcept {
  return !text.empty() && std::all_of(text.begin(), text.end(), [extra](char byte) {
    return is_alphanumeric(byte) || extra.find(byte) != std::string_view::npos;
  });
}

bool is_key(const tarvex_dsi_rest_key_value_t& pair, const char* key) noexcept {
  return pair.key != nullptr && strcasecmp(pair.key, key) == 0;
}

bool is_suppressed(const tarvex_dsi_rest_key_array_t* headers, const char* key) {
  const auto pairs = pairs_of(headers);
  return std::any_of(pairs.begin(), pairs.end(), [key](const auto& pair) {
    return is_key(pair, key) && pair.value != nullptr && *pair.value == '\0';
  });
}

template <typename Number>
std::optional<Number> parse_number(std::string_view text) noexcept {
  Number number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size() || text.front() == '-') return std::nullopt;
  return number;
}

std::string_view trim(std::string_view text) noexcept {
  const std::size_t first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

}  // namespace

bool is_token(std::string_view text) noexcept {
  return consists_of(text, "!#$%&'*+-.^_`|~");
}

tarvex_result_t check_header(const tarvex_dsi_rest_key_value_t& pair) {
  if (pair.key == nullptr || !is_token(pair.key)) {
    return fail(attempt::useless, "A header's name must be a word of letters, digits and hyphens.");
  }
  if (pair.value != nullptr && std::strpbrk(pair.value, "\r\n") != nullptr) {
    return fail(attempt::useless, "The value of the header \"%s\" holds a line break.", pair.key);
  }
  return TARVEX_SUCCESS;
}

const char* find_header(const tarvex_dsi_rest_key_array_t* headers, const char* key) noexcept {
  for (const auto& pair : pairs_of(headers)) {
    if (is_key(pair, key) && pair.value != nullptr) return pair.value;
  }
  return nullptr;
}

tarvex_result_t request_headers::append(const std::string& line) {
  curl_slist* const longer = curl_slist_append(list_.get(), line.c_str());
  if (longer == nullptr) return out_of_memory();
  (void)list_.release();  // the longer list begins with it
  list_.reset(longer);
  return TARVEX_SUCCESS;
}

tarvex_result_t request_headers::note_framing(const tarvex_dsi_rest_key_value_t& pair) {
  if (is_key(pair, "Transfer-Encoding")) coding_given = true;
  if (!is_key(pair, "Content-Length")) return TARVEX_SUCCESS;
  if (content_length) return fail(attempt::useless, "The request has two Content-Length headers.");
  content_length = parse_number<std::uint64_t>(trim(pair.value));
  if (content_length && *content_length <= INT64_MAX) return TARVEX_SUCCESS;
  return fail(attempt::useless, "The Content-Length header is not a number of bytes.");
}

tarvex_result_t request_headers::append_pair(const tarvex_dsi_rest_key_value_t& pair) {
  if (const tarvex_result_t result = note_framing(pair); result != TARVEX_SUCCESS) return result;
  return append(std::string(pair.key).append(": ").append(pair.value));
}

tarvex_result_t request_headers::assign(const tarvex_dsi_rest_key_array_t* headers) {
  length_suppressed = is_suppressed(headers, "Content-Length");
  coding_suppressed = is_suppressed(headers, "Transfer-Encoding");
  for (const auto& pair : pairs_of(headers)) {
    if (const tarvex_result_t result = check_header(pair); result != TARVEX_SUCCESS) return result;
    if (pair.value == nullptr) continue;
    // libcurl leaves out a header of its own that is listed with nothing after the colon.
    const tarvex_result_t result =
        is_suppressed(headers, pair.key) ? append(std::string(pair.key).append(":")) : append_pair(pair);
    if (result != TARVEX_SUCCESS) return result;
  }
  // Waiting for a "100 Continue" would cost a round trip, or a second where a server ignores the question.
  if (find_header(headers, "Expect") == nullptr) return append("Expect:");
  return TARVEX_SUCCESS;
}

std::optional<std::int64_t> range_start(const char* value) noexcept {
  constexpr std::string_view UNIT = "bytes=";
  if (value == nullptr) return std::nullopt;
  const std::string_view range = trim(value);
  const std::size_t hyphen = range.find('-');
  if (!range.starts_with(UNIT) || hyphen == std::string_view::npos || hyphen <= UNIT.size()) return std::nullopt;
  if (range.find(',') != std::string_view::npos) return std::nullopt;
  return parse_number<std::int64_t>(range.substr(UNIT.size(), hyphen - UNIT.size()));
}

std::string multipart_boundary(const char* content_type) {
  constexpr std::string_view KEY = "boundary=";
  std::string_view rest = content_type == nullptr ? "" : content_type;
  if (strncasecmp(rest.data(), "multipart/", 10) != 0) return {};
  while (!rest.empty()) {
    const std::size_t semicolon = rest.find(';');
    rest = semicolon == std::string_view::npos ? std::string_view() : trim(rest.substr(semicolon + 1));
    if (rest.size() < KEY.size() || strncasecmp(rest.data(), KEY.data(), KEY.size()) != 0) continue;
    std::string_view value = rest.substr(KEY.size());
    value = value.starts_with('"') ? value.substr(1, value.find('"', 1) - 1) : trim(value.substr(0, value.find(';')));
    if (value.size() > BOUNDARY_LIMIT || !consists_of(value, "'()+_,-./:=? ") || value.back() == ' ') return {};
    return std::string(value);
  }
  return {};
}

}  // namespace tarvex::rest
