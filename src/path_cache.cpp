#include "handles.h"
#include "trace.h"

#include <cstdlib>
#include <cstring>
#include <memory>

using tarvex::box::error_memory;
using tarvex::box::traced;

namespace {

using info_ptr = std::unique_ptr<tarvex_box_path_info_t, tarvex::box::handle_releaser<tarvex_box_path_info_free>>;

constexpr int buckets = 1023;

void* tarvex_l_box_key(const char* path) {
  return const_cast<char*>(path);
}

int tarvex_l_box_table_init(tarvex_hashtable_t* table) {
  return tarvex_hashtable_init(table, buckets, tarvex_hashtable_string_hash, tarvex_hashtable_string_keyeq);
}

/// The path of an item named `name` in the folder `base`: the root's own path is the only one that ends in a slash.
char* tarvex_l_box_join(const char* base, const char* name) {
  const char* const separator = std::strlen(base) == 1 ? "" : "/";
  return tarvex_common_create_string("%s%s%s", base, separator, name);
}

tarvex_result_t tarvex_l_box_update(tarvex_hashtable_t* cache, const tarvex_box_path_info_t* info,
                                    const char* base_path) {
  info_ptr copy(tarvex_box_path_info_copy(info));
  if (!copy) return error_memory();
  if (base_path != nullptr && *base_path != '\0') {
    std::free(copy->name);
    copy->name = tarvex_l_box_join(base_path, info->name);
    // An item without a name in the root folder must not pass for the root itself.
    if (copy->name == nullptr || std::strcmp(copy->name, "/") == 0) return error_memory();
  }
  if (tarvex_hashtable_insert(cache, copy->name, copy.get()) != 0) {
    tarvex_result_release(tarvex_box_path_cache_remove(cache, copy->name));
    if (tarvex_hashtable_insert(cache, copy->name, copy.get()) != 0) return error_memory();
  }
  (void)copy.release();  // the cache's now
  return TARVEX_SUCCESS;
}

tarvex_result_t tarvex_l_box_cache_init(tarvex_hashtable_t* cache) {
  // A table that could not be made refuses the root below, and that is the failure that counts.
  if (tarvex_l_box_table_init(cache) != 0) tarvex_result_release(error_memory());
  char name[] = "/";
  char id[] = "0";
  tarvex_box_path_info_t root{};
  root.name = name;
  root.id = id;
  root.type = TARVEX_BOX_FOLDER;
  return tarvex_box_path_cache_update(cache, &root, nullptr);
}

}  // namespace

extern "C" {

tarvex_result_t tarvex_box_path_cache_init(tarvex_hashtable_t* cache) {
  return traced([&] { return tarvex_l_box_cache_init(cache); });
}

tarvex_result_t tarvex_box_path_cache_update(tarvex_hashtable_t* cache, const tarvex_box_path_info_t* info,
                                             const char* base_path) {
  return traced([&] { return tarvex_l_box_update(cache, info, base_path); });
}

tarvex_box_path_info_t* tarvex_box_path_cache_query(tarvex_hashtable_t* cache, const char* path) {
  return static_cast<tarvex_box_path_info_t*>(tarvex_hashtable_lookup(cache, tarvex_l_box_key(path)));
}

tarvex_result_t tarvex_box_path_cache_remove(tarvex_hashtable_t* cache, const char* path) {
  return traced([&]() -> tarvex_result_t {
    tarvex_box_path_info_free(
        static_cast<tarvex_box_path_info_t*>(tarvex_hashtable_remove(cache, tarvex_l_box_key(path))));
    return TARVEX_SUCCESS;
  });
}

tarvex_result_t tarvex_box_upload_state_init(tarvex_hashtable_t* table) {
  return traced([&] { return tarvex_l_box_table_init(table) == 0 ? tarvex::box::success : error_memory(); });
}

tarvex_result_t tarvex_box_upload_state_update(tarvex_hashtable_t* table, tarvex_box_upload_session_t* upload,
                                               const char*) {
  return traced([&] {
    return tarvex_hashtable_insert(table, upload->name, upload) == 0 ? tarvex::box::success : error_memory();
  });
}

tarvex_box_upload_session_t* tarvex_box_upload_state_query(tarvex_hashtable_t* table, const char* path) {
  return static_cast<tarvex_box_upload_session_t*>(tarvex_hashtable_lookup(table, tarvex_l_box_key(path)));
}

tarvex_result_t tarvex_box_upload_state_remove(tarvex_hashtable_t* table, const char* path) {
  return traced([&]() -> tarvex_result_t {
    tarvex_box_upload_session_free(
        static_cast<tarvex_box_upload_session_t*>(tarvex_hashtable_remove(table, tarvex_l_box_key(path))));
    return TARVEX_SUCCESS;
  });
}

void tarvex_box_upload_session_free(tarvex_box_upload_session_t* info) {
  if (info == nullptr) return;
  std::free(info->id);
  std::free(info->name);
  json_decref(info->part_array);
  std::free(info);
}

}  // extern "C"
