#include "trace.h"

#include <string>
#include <string_view>

namespace {

using record = tarvex_box_path_info_t*;

/// Where a path leads: absent records are null.
struct destination {
  record entry = nullptr;
  record parent = nullptr;
};

bool tarvex_l_box_is_child(const tarvex_box_path_info_t& item, const tarvex_box_path_info_t& folder) {
  return item.parent_id != nullptr && std::string_view(item.parent_id) == folder.id;
}

/// Finds `path` in `folder`, listing the folder when the cache cannot tell. A folder that was listed is believed.
tarvex_result_t tarvex_l_box_find(tarvex_box_session_t* box, record folder, const char* path, record& found) {
  found = tarvex_box_path_cache_query(&box->cache, path);
  if (found != nullptr && tarvex_l_box_is_child(*found, *folder)) return TARVEX_SUCCESS;
  if (found != nullptr) {  // moved since: what the cache says of the folder is out of date
    tarvex_result_release(tarvex_box_path_cache_remove(&box->cache, path));
    found = nullptr;
    folder->listed = false;
  }
  if (folder->listed) return TARVEX_SUCCESS;
  const tarvex_result_t listing = tarvex_box_get_folder_items(box, folder->id, folder->name, nullptr, nullptr);
  if (listing != TARVEX_SUCCESS) return listing;
  folder->listed = true;
  found = tarvex_box_path_cache_query(&box->cache, path);
  return TARVEX_SUCCESS;
}

/// Walks the path component by component from the root, which session start has listed.
tarvex_result_t tarvex_l_box_walk(tarvex_box_session_t* box, std::string_view path, destination& out) {
  record folder = tarvex_box_path_cache_query(&box->cache, "/");
  if (folder == nullptr) return tarvex::box::error_memory();
  folder->listed = true;
  for (size_t start = 1; start < path.size();) {
    const size_t slash = path.find('/', start);
    const bool last = slash == std::string_view::npos;
    record found = nullptr;
    const tarvex_result_t result = tarvex_l_box_find(box, folder, std::string(path.substr(0, slash)).c_str(), found);
    if (result != TARVEX_SUCCESS) return result;
    if (last || found == nullptr) {
      out = {.entry = found, .parent = last ? folder : nullptr};
      return TARVEX_SUCCESS;
    }
    folder = found;
    start = slash + 1;
  }
  out = {.entry = folder, .parent = nullptr};  // "/", or a path that ends in a slash
  return TARVEX_SUCCESS;
}

tarvex_result_t tarvex_l_box_resolve(tarvex_box_session_t* box, const std::string& path, record* entry_out,
                                     record* parent_out) {
  if (!path.starts_with('/')) return tarvex::box::error_path(553, "INVALID_PATH_NAME", "\"" + path + "\"");
  destination found;
  if (const tarvex_result_t result = tarvex_l_box_walk(box, path, found); result != TARVEX_SUCCESS) return result;
  if (entry_out != nullptr) *entry_out = found.entry;
  if (parent_out != nullptr) *parent_out = found.parent;
  if (found.entry != nullptr) return TARVEX_SUCCESS;
  return tarvex::box::error_path(550, "PATH_NOT_FOUND", "\"" + path + "\"");
}

}  // namespace

extern "C" tarvex_result_t tarvex_box_path_resolve(tarvex_box_session_t* box, const char* path,
                                                   tarvex_box_path_info_t** entry_out,
                                                   tarvex_box_path_info_t** parent_out) {
  return tarvex::box::traced([&] { return tarvex_l_box_resolve(box, path, entry_out, parent_out); });
}
