#include "version.h"

#include "metadata.h"
#include "text.h"

#include <string_view>

namespace tarvex::box {

namespace {

constexpr error_source VERSION_SOURCE("tarvex_i_box_recv");

/// Fetches a file's record with its metadata, without entering it anywhere. \param status  as in `answer`
tarvex_result_t tarvex_l_box_look(tarvex_box_session_t* box, const std::string& id, item_record& item, int& status) {
  const request call = {
      .source = VERSION_SOURCE,
      .url = api_url({"/2.0/files/", id.c_str(), "/"}),
      .query = {{"fields", FILE_FIELDS}},
      .pacing = &box->user_retry,
  };
  answer file;
  const tarvex_result_t result = request_perform(box, call, file);
  status = file.status;
  if (result != TARVEX_SUCCESS) return result;
  return file.document ? item_parse(VERSION_SOURCE, file.document.get(), item) : error_memory();
}

void tarvex_l_box_etag_forget(tarvex_box_session_t* box, const char* path) {
  if (auto* const record = tarvex_box_path_cache_query(&box->cache, path); record != nullptr) record->next_etag = 0;
}

/// A failed condition, and not one of Box's other refusals with that status.
bool tarvex_l_box_changed(tarvex_result_t result, int status) {
  if (status != STATUS_PRECONDITION_FAILED) return false;
  const char* const code = tarvex_box_error_get_info(tarvex_error_peek(result), "code");
  return code == nullptr || std::string_view(code).ends_with("precondition_failed");
}

/// What the client is told of a store that was not carried out. \param result  taken over
tarvex_result_t tarvex_l_box_refusal(tarvex_box_session_t* box, const error_place& place, const version_store& store,
                                     tarvex_result_t result, const answer& stored) {
  const int status = stored.status;
  if (stored.uncertain || status == STATUS_NOT_FOUND || status == STATUS_GONE || status == STATUS_PRECONDITION_FAILED) {
    tarvex_l_box_etag_forget(box, store.path);
  }
  if (tarvex_l_box_changed(result, status)) {
    tarvex_result_release(result);
    const std::string message = std::string("GridFTP-Path: \"") + store.path +
                                "\"\nGridFTP-Error: The file was changed by somebody else meanwhile and is as they "
                                "left it; store it again to replace it.";
    return error_ftp(553, "FILE_CHANGED", message.c_str());
  }
  return result != TARVEX_SUCCESS ? result : error_generic(place, "No metadata response after upload.");
}

/// The file as it is now that it has the new version. What the answer does not tell, a look at the file does: its
/// content is the new one, by a change that came after the one last seen. \param result  taken over
tarvex_result_t tarvex_l_box_outcome(tarvex_box_session_t* box, const error_place& place, const version_store& store,
                                     tarvex_result_t result, const answer& stored, std::optional<item_record>& item) {
  json_t* const entry = json_array_get(json_object_get(stored.document.get(), "entries"), 0);
  const bool told = result == TARVEX_SUCCESS && entry != nullptr;
  if (told) {
    const tarvex_result_t parsed = item_parse(place, entry, item.emplace());
    if (parsed == TARVEX_SUCCESS && item->id != nullptr) return SUCCESS;
    tarvex_result_release(parsed);
  }
  const bool open = stored.uncertain || stored.status < 400;
  if (!open || store.target.id.empty()) return tarvex_l_box_refusal(box, place, store, result, stored);
  int ignored = 0;
  const tarvex_result_t seen = tarvex_l_box_look(box, store.target.id, item.emplace(), ignored);
  const bool done = seen == TARVEX_SUCCESS && item->id != nullptr && item->sha1 != nullptr &&
                    store.sha1 == item->sha1 && item->next_etag != store.target.next_etag;
  tarvex_result_release(seen);
  if (!done) return tarvex_l_box_refusal(box, place, store, result, stored);
  tarvex_result_release(result);
  return SUCCESS;
}

/// Stores the new content's MD5 in the place of the old one's, which Box has kept. Whether there is any the record may
/// not know: then the first way that is tried is refused for that.
tarvex_result_t tarvex_l_box_md5_renew(tarvex_box_session_t* box, item_record& item, const char* md5) {
  int status = 0;
  const int wrong_way = item.has_metadata ? STATUS_NOT_FOUND : STATUS_CONFLICT;
  const tarvex_result_t result = metadata_store(box, &item, "tarvex-md5", md5, status);
  if (result == TARVEX_SUCCESS || status != wrong_way) return result;
  tarvex_result_release(result);
  item.has_metadata = !item.has_metadata;
  return metadata_store(box, &item, "tarvex-md5", md5, status);
}

}  // namespace

bool version_replaces(const tarvex_box_path_info_t& item) {
  return tarvex_i_box_replace_as_version == 1 && item.type == TARVEX_BOX_FILE;
}

std::optional<version_target> version_target_at(tarvex_box_session_t* box, const char* path,
                                                const tarvex_box_path_info_t& parent) {
  if (tarvex_i_box_replace_as_version != 1) return std::nullopt;
  const tarvex_box_path_info_t* const item = tarvex_box_path_cache_query(&box->cache, path);
  if (item == nullptr || !version_replaces(*item) || item->parent_id == nullptr) return std::nullopt;
  if (std::string_view(item->parent_id) != parent.id) return std::nullopt;
  return version_target{
      .id = item->id, .next_etag = item->next_etag, .has_metadata = item->has_metadata || item->md5 != nullptr};
}

tarvex_result_t version_refresh(tarvex_box_session_t* box, const char* path, const tarvex_box_path_info_t& parent) {
  const std::optional<version_target> target = version_target_at(box, path, parent);
  if (!target || target->next_etag != 0) return SUCCESS;
  item_record item;
  int status = 0;
  const tarvex_result_t result = tarvex_l_box_look(box, target->id, item, status);
  if (result != TARVEX_SUCCESS && status != STATUS_NOT_FOUND) return result;
  const bool there = result == TARVEX_SUCCESS && item.name != nullptr && item.id != nullptr &&
                     path_split(path).name == item.name && std::string_view(item.parent_id) == parent.id;
  tarvex_result_release(result);
  return there ? item_cache(box, VERSION_SOURCE, item, parent.name) : tarvex_box_path_cache_remove(&box->cache, path);
}

void version_condition(uint32_t next_etag, std::vector<request_header>& headers) {
  if (next_etag != 0) headers.push_back({"If-Match", std::to_string(next_etag - 1)});
}

tarvex_result_t version_settle(tarvex_box_session_t* box, const error_place& place, const version_store& store,
                               tarvex_result_t result, const answer& stored) {
  std::optional<item_record> item;
  const tarvex_result_t outcome = tarvex_l_box_outcome(box, place, store, result, stored, item);
  if (outcome != TARVEX_SUCCESS) return outcome;
  item->has_metadata = item->has_metadata || store.target.has_metadata;
  text_replace(item->md5, store.md5.c_str());
  const tarvex_result_t renewed = tarvex_l_box_md5_renew(box, *item, store.md5.c_str());
  const tarvex_result_t cached = item_cache(box, place, *item, store.parent.name);
  if (renewed == TARVEX_SUCCESS) return cached;
  tarvex_result_release(cached);
  return renewed;
}

}  // namespace tarvex::box
