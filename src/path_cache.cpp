#include "path_record.h"
#include "path_table.h"
#include "tarvex_common.hpp"
#include "trace.h"

#include <cstring>
#include <string_view>

using tarvex::box::error_memory;
using tarvex::box::path_key;
using tarvex::box::path_table_init;
using tarvex::box::traced;

namespace {

using info_ptr = tarvex::owner<tarvex_box_path_info_t, tarvex_box_path_info_free>;

tarvex_result_t tarvex_l_box_update(tarvex_hashtable_t* cache, const tarvex_box_path_info_t* info,
                                    const char* base_path) {
  const std::string_view base = base_path != nullptr ? base_path : "";
  info_ptr copy(info != nullptr ? tarvex::box::path_record_new(*info, base) : nullptr);
  // An item without a name in the root folder must not pass for the root itself.
  if (!copy || (!base.empty() && std::string_view(copy->name) == "/")) return error_memory();
  if (tarvex_hashtable_insert(cache, copy->name, copy.get()) != 0) {
    tarvex_result_release(tarvex_box_path_cache_remove(cache, copy->name));
    if (tarvex_hashtable_insert(cache, copy->name, copy.get()) != 0) return error_memory();
  }
  (void)copy.release();  // the cache's now
  return TARVEX_SUCCESS;
}

tarvex_result_t tarvex_l_box_cache_init(tarvex_hashtable_t* cache) {
  // A table that could not be made refuses the root below, and that is the failure that counts.
  if (path_table_init(cache) != 0) tarvex_result_release(error_memory());
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
  return static_cast<tarvex_box_path_info_t*>(tarvex_hashtable_lookup(cache, path_key(path)));
}

tarvex_result_t tarvex_box_path_cache_remove(tarvex_hashtable_t* cache, const char* path) {
  return traced([&]() -> tarvex_result_t {
    // The root's record stays for the session's life: nothing would find a path again without it.
    if (std::strcmp(path, "/") == 0) return TARVEX_SUCCESS;
    tarvex_box_path_info_free(static_cast<tarvex_box_path_info_t*>(tarvex_hashtable_remove(cache, path_key(path))));
    return TARVEX_SUCCESS;
  });
}

}  // extern "C"
