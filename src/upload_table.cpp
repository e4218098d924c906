#include "path_table.h"
#include "trace.h"

using tarvex::box::error_memory;
using tarvex::box::path_key;
using tarvex::box::path_table_init;
using tarvex::box::traced;

extern "C" {

tarvex_result_t tarvex_box_upload_state_init(tarvex_hashtable_t* table) {
  return traced([&] { return path_table_init(table) == 0 ? tarvex::box::SUCCESS : error_memory(); });
}

tarvex_result_t tarvex_box_upload_state_update(tarvex_hashtable_t* table, tarvex_box_upload_session_t* upload,
                                               const char*) {
  return traced([&] {
    return tarvex_hashtable_insert(table, upload->name, upload) == 0 ? tarvex::box::SUCCESS : error_memory();
  });
}

tarvex_box_upload_session_t* tarvex_box_upload_state_query(tarvex_hashtable_t* table, const char* path) {
  return static_cast<tarvex_box_upload_session_t*>(tarvex_hashtable_lookup(table, path_key(path)));
}

tarvex_result_t tarvex_box_upload_state_remove(tarvex_hashtable_t* table, const char* path) {
  return traced([&]() -> tarvex_result_t {
    tarvex_box_upload_session_free(
        static_cast<tarvex_box_upload_session_t*>(tarvex_hashtable_remove(table, path_key(path))));
    return TARVEX_SUCCESS;
  });
}

}  // extern "C"
