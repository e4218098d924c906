#include "content_version.h"

#include "item.h"

#include <strings.h>

#include <charconv>
#include <string_view>

namespace tarvex::box {

namespace {

constexpr std::array VALIDATORS = {"ETag", "Last-Modified"};

/// Takes a number off the text, and the character that has to follow it ('\0': none).
std::optional<uint64_t> tarvex_l_box_take_number(std::string_view& text, char follows) {
  uint64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc()) return std::nullopt;
  text.remove_prefix(static_cast<size_t>(end - text.data()));
  if (follows == '\0') return text.empty() ? std::optional(number) : std::nullopt;
  if (!text.starts_with(follows)) return std::nullopt;
  text.remove_prefix(1);
  return number;
}

/// The whole length of the file by an answer's head.
std::optional<uint64_t> tarvex_l_box_total(int status, const tarvex_dsi_rest_key_array_t& headers) {
  if (status != STATUS_OK) return content_range_parse(header_value(headers, "Content-Range")).total;
  // The length of coded content is not the file's.
  const char* const length = header_value(headers, "Content-Length");
  if (length == nullptr || header_value(headers, "Content-Encoding") != nullptr) return std::nullopt;
  std::string_view text = length;
  return tarvex_l_box_take_number(text, '\0');
}

}  // namespace

const char* header_value(const tarvex_dsi_rest_key_array_t& headers, const char* name) {
  for (size_t i = 0; i < headers.count; ++i) {
    if (strcasecmp(headers.key_value[i].key, name) == 0) return headers.key_value[i].value;
  }
  return nullptr;
}

content_range content_range_parse(const char* value) {
  constexpr std::string_view UNIT = "bytes ";
  std::string_view text = value != nullptr ? value : "";
  if (!text.starts_with(UNIT)) return {};
  text.remove_prefix(UNIT.size());
  content_range range;
  if (text.starts_with("*/")) {
    text.remove_prefix(2);
  } else {
    range.first = tarvex_l_box_take_number(text, '-');
    if (range.first) range.last = tarvex_l_box_take_number(text, '/');
    if (!range.last || *range.last < *range.first) return {};
  }
  range.total = tarvex_l_box_take_number(text, '\0');
  return range;
}

tarvex_result_t version_record_get(tarvex_box_session_t* box, const error_place& place, const char* id,
                                   version_record& out) {
  const request call = {
      .source = place.source,
      .url = api_url({"/2.0/files/", id, "/"}),
      .query = {{"fields", ITEM_FIELDS}},
      .pacing = &box->user_retry,
  };
  answer file;
  if (const tarvex_result_t result = request_perform(box, call, file); result != TARVEX_SUCCESS) return result;
  item_record item;
  if (!file.document) return error_memory();
  if (const tarvex_result_t result = item_parse(place, file.document.get(), item); result != TARVEX_SUCCESS) {
    return result;
  }
  out = {.next_etag = item.next_etag, .sha1 = item.sha1 != nullptr ? item.sha1 : "", .size = item.size};
  return SUCCESS;
}

content_version::verdict content_version::compare(int status, const tarvex_dsi_rest_key_array_t& headers) {
  const std::optional<uint64_t> total = tarvex_l_box_total(status, headers);
  if (total && *total != record_.size) return begun_ ? verdict::changed : verdict::not_as_recorded;
  if (status != STATUS_OK && status != STATUS_PARTIAL_CONTENT) return verdict::same;
  for (size_t i = 0; i < texts_.size(); ++i) {
    const char* const value = header_value(headers, VALIDATORS[i]);
    const std::string told = value != nullptr ? value : "";
    if (!told.empty() && !texts_[i].empty() && told != texts_[i]) return verdict::changed;
    if (texts_[i].empty()) texts_[i] = told;
  }
  begun_ = true;
  return verdict::same;
}

tarvex_result_t version_check(tarvex_box_session_t* box, const error_place& place, const char* id,
                              const content_version& version) {
  if (version.has_validators()) return SUCCESS;
  version_record now;
  if (const tarvex_result_t result = version_record_get(box, place, id, now); result != TARVEX_SUCCESS) return result;
  return now == version.record() ? SUCCESS : error_changed();
}

tarvex_result_t error_changed() {
  return error_ftp(451, "FILE_CHANGED", "GridFTP-Error: The file changed while it was read. Fetch it again.");
}

}  // namespace tarvex::box
