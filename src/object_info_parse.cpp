#include "date.h"
#include "item_fields.h"
#include "trace.h"

#include <charconv>
#include <cstring>
#include <initializer_list>
#include <string_view>

namespace {

constexpr tarvex::box::error_source OBJECT_INFO_PARSE_SOURCE("tarvex_box_object_info_parse");

char ROOT_ID[] = "0";  // lent to records, whose texts nobody writes to

/// The text of a string member, borrowed; null when the member is absent or no string.
char* tarvex_l_box_text_of(json_t* value) {
  return const_cast<char*>(json_string_value(value));  // a record's texts are writable for its owner alone
}

int tarvex_l_box_item_type(std::string_view type) {
  if (type == "folder") return TARVEX_BOX_FOLDER;
  return type == "file" ? TARVEX_BOX_FILE : TARVEX_BOX_UNKNOWN;
}

void tarvex_l_box_parse_metadata(json_t* json, tarvex_box_path_info_t* info) {
  json_t* const metadata = json_object_get(json, "metadata");
  if (metadata == nullptr || json_is_null(metadata)) return;
  info->has_metadata = true;
  json_t* const properties = json_object_get(json_object_get(metadata, "global"), "properties");
  info->md5 = tarvex_l_box_text_of(json_object_get(properties, "tarvex-md5"));
}

/// Box's etag plus one; 0 for one that is not written as Box writes numbers.
uint32_t tarvex_l_box_next_etag(json_t* json) {
  const char* const text = json_string_value(json_object_get(json, "etag"));
  if (text == nullptr) return 0;
  const std::string_view digits = text;
  uint32_t etag = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), etag);
  const bool whole = error == std::errc{} && end == digits.data() + digits.size();
  const bool canonical = digits == "0" || !digits.starts_with('0');
  return whole && canonical && etag != UINT32_MAX ? etag + 1 : 0;
}

/// The offset's hours and minutes are asked for, too. The time is computed from whatever could be read.
bool tarvex_l_box_parse_modtime(const char* text, time_t& modtime) {
  tarvex::box::date_fields date;
  const int count = tarvex::box::date_scan(text, date);
  modtime = tarvex::box::date_to_utc(date);
  return count == 8;
}

/// A record with texts of its own.
tarvex_result_t tarvex_l_box_parse(json_t* json, tarvex_box_path_info_t* info) {
  const tarvex_result_t result = tarvex::box::item_fields_parse(json, info);
  if (info->parent_id == nullptr) return result;  // nothing was filled in
  for (char** const text : {&info->name, &info->id, &info->parent_id, &info->md5, &info->sha1}) {
    if (*text != nullptr) *text = strdup(*text);
  }
  if (info->parent_id != nullptr) return result;
  tarvex_result_release(result);
  return tarvex::box::error_generic(OBJECT_INFO_PARSE_SOURCE, "No 'parent->id' field found!");
}

}  // namespace

namespace tarvex::box {

tarvex_result_t item_fields_parse(json_t* json, tarvex_box_path_info_t* info) {
  const char* const type = json_string_value(json_object_get(json, "type"));
  if (type == nullptr) return error_generic(OBJECT_INFO_PARSE_SOURCE, "No 'type' field found!");
  info->type = tarvex_l_box_item_type(type);
  info->name = tarvex_l_box_text_of(json_object_get(json, "name"));
  info->id = tarvex_l_box_text_of(json_object_get(json, "id"));
  if (json_t* const size = json_object_get(json, "size"); json_is_integer(size)) {
    info->size = static_cast<uint64_t>(json_integer_value(size));
  }
  const char* const modified = json_string_value(json_object_get(json, "content_modified_at"));
  const bool dated = modified == nullptr || tarvex_l_box_parse_modtime(modified, info->modtime);
  info->sha1 = tarvex_l_box_text_of(json_object_get(json, "sha1"));
  tarvex_l_box_parse_metadata(json, info);
  info->next_etag = tarvex_l_box_next_etag(json);
  // No parent, a null parent, and one without an id all mean the root; an id is a string or none.
  char* const parent = tarvex_l_box_text_of(json_object_get(json_object_get(json, "parent"), "id"));
  info->parent_id = parent != nullptr ? parent : ROOT_ID;
  return dated ? SUCCESS : error_generic(OBJECT_INFO_PARSE_SOURCE, "Error with 'content_modified_at' field!");
}

}  // namespace tarvex::box

extern "C" tarvex_result_t tarvex_box_object_info_parse(json_t* json, tarvex_box_path_info_t* info) {
  return tarvex::box::traced([&] { return tarvex_l_box_parse(json, info); });
}
