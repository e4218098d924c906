#include "item_fields.h"
#include "request.h"
#include "trace.h"

#include <string>

using tarvex::box::answer;
using tarvex::box::error_generic;
using tarvex::box::error_source;
using tarvex::box::request;

namespace {

constexpr error_source FOLDER_SOURCE("tarvex_box_get_folder_items");
constexpr error_source FILE_SOURCE("tarvex_box_get_file_info");

/// Who takes the items of one call.
struct item_sink {
  tarvex_box_session_t* box = nullptr;
  error_source source = {};
  const char* base_path = nullptr;
  tarvex_box_list_entry_cb_t callback = nullptr;
  void* callback_arg = nullptr;
};

tarvex_result_t tarvex_l_box_item_take(const item_sink& sink, tarvex_box_path_info_t& item) {
  const tarvex_result_t cached = tarvex_box_path_cache_update(&sink.box->cache, &item, sink.base_path);
  if (cached != TARVEX_SUCCESS) {
    tarvex_result_release(cached);
    return error_generic(sink.source, "Failed info_parse!");
  }
  if (sink.callback == nullptr) return TARVEX_SUCCESS;
  return sink.callback(sink.box, sink.base_path, &item, sink.callback_arg);
}

/// Web links have ids of their own that requests for files would take for files'.
bool tarvex_l_box_passed_over(const tarvex_box_path_info_t& item) {
  return item.type == TARVEX_BOX_UNKNOWN && tarvex_i_box_web_links == 0;
}

/// Parses an item, enters it into the cache and hands it on.
tarvex_result_t tarvex_l_box_item(const item_sink& sink, json_t* json) {
  tarvex_box_path_info_t item{};
  const tarvex_result_t parsed =
      tarvex::box::traced([&] { return tarvex::box::item_fields_parse(json, &item); }, "tarvex_box_object_info_parse");
  if (parsed != TARVEX_SUCCESS) {
    tarvex_result_release(parsed);
    return error_generic(sink.source, "Failed info_parse!");
  }
  return tarvex_l_box_passed_over(item) ? tarvex::box::SUCCESS : tarvex_l_box_item_take(sink, item);
}

tarvex_result_t tarvex_l_box_page(const item_sink& sink, json_t* page) {
  json_t* const entries = json_object_get(page, "entries");
  if (!json_is_array(entries)) return error_generic(sink.source, "Json object not array when it was expected");
  for (size_t i = 0; i < json_array_size(entries); ++i) {
    json_t* const entry = json_array_get(entries, i);
    if (entry == nullptr) break;
    if (const tarvex_result_t result = tarvex_l_box_item(sink, entry); result != TARVEX_SUCCESS) return result;
  }
  return TARVEX_SUCCESS;
}

/// Where the next page begins; null: this was the last one.
const char* tarvex_l_box_next_marker(json_t* page) {
  const char* const next = json_string_value(json_object_get(page, "next_marker"));
  const bool ends = next != nullptr && *next == '\0' && tarvex_i_box_empty_marker_ends == 1;
  return ends ? nullptr : next;  // by default an empty marker asks for one more page, too
}

tarvex_result_t tarvex_l_box_list(const item_sink& sink, const char* folder_id) {
  const std::string limit = std::to_string(tarvex_i_box_page_limit);
  std::string marker;
  bool more = false;
  do {
    const request call = {
        .source = sink.source,
        .url = tarvex::box::api_url({"/2.0/folders/", folder_id, "/items"}),
        .query = {{"fields", tarvex::box::ITEM_FIELDS},
                  {"usemarker", "true"},
                  {"marker", more ? marker.c_str() : nullptr},
                  {"limit", limit.c_str()}},
        .pacing = &sink.box->user_retry,
    };
    answer page;
    tarvex_result_t result = tarvex::box::request_perform(sink.box, call, page);
    if (result != TARVEX_SUCCESS) return result;
    if (!page.document) return tarvex::box::error_memory();
    const char* const next = tarvex_l_box_next_marker(page.document.get());
    more = next != nullptr;
    if (more) marker = next;
    result = tarvex_l_box_page(sink, page.document.get());
    if (result != TARVEX_SUCCESS) return result;
  } while (more);
  return TARVEX_SUCCESS;
}

tarvex_result_t tarvex_l_box_file(const item_sink& sink, const char* file_id) {
  const request call = {
      .source = sink.source,
      .url = tarvex::box::api_url({"/2.0/files/", file_id, "/"}),
      .query = {{"fields", tarvex::box::FILE_FIELDS}},
      .pacing = &sink.box->user_retry,
  };
  answer file;
  if (const tarvex_result_t result = tarvex::box::request_perform(sink.box, call, file); result != TARVEX_SUCCESS) {
    return result;
  }
  return file.document ? tarvex_l_box_item(sink, file.document.get()) : tarvex::box::error_memory();
}

}  // namespace

extern "C" {

tarvex_result_t tarvex_box_get_folder_items(tarvex_box_session_t* box, const char* folder_id, const char* path,
                                            tarvex_box_list_entry_cb_t callback, void* callback_arg) {
  const item_sink sink = {box, FOLDER_SOURCE, path, callback, callback_arg};
  return tarvex::box::traced([&] { return tarvex_l_box_list(sink, folder_id); });
}

tarvex_result_t tarvex_box_get_file_info(tarvex_box_session_t* box, const char* file_id, const char* parent_path,
                                         tarvex_box_list_entry_cb_t callback, void* callback_arg) {
  const item_sink sink = {box, FILE_SOURCE, parent_path, callback, callback_arg};
  return tarvex::box::traced([&] { return tarvex_l_box_file(sink, file_id); });
}

}  // extern "C"
