#include "item.h"

namespace tarvex::box {

split_path path_split(const std::string& path, const char* function) {
  const size_t slash = path.rfind('/');
  require(slash != std::string::npos, "name != NULL", function);
  return {.parent = path.substr(0, slash), .name = path.substr(slash + 1)};
}

json_ptr placement(const std::string& name, const char* parent_id) {
  return json_ptr(json_pack("{s:s, s:{s:s}}", "name", name.c_str(), "parent", "id", parent_id));
}

tarvex_result_t item_parse(const error_place& place, json_t* document, item_record& item) {
  const tarvex_result_t result = tarvex_box_object_info_parse(document, &item);
  if (result == TARVEX_SUCCESS) return SUCCESS;
  tarvex_result_release(result);
  return error_generic(place, "Failed info_parse!");
}

tarvex_result_t item_cache(tarvex_box_session_t* box, const error_place& place, const item_record& item,
                           const char* parent_path) {
  const tarvex_result_t result = tarvex_box_path_cache_update(&box->cache, &item, parent_path);
  if (result == TARVEX_SUCCESS) return SUCCESS;
  tarvex_result_release(result);
  return error_generic(place, "Failed cache update!");
}

tarvex_result_t item_entered(tarvex_box_session_t* box, const error_place& place, json_t* document,
                             const char* parent_path) {
  if (document == nullptr) return error_memory();
  item_record item;
  if (const tarvex_result_t result = item_parse(place, document, item); result != TARVEX_SUCCESS) return result;
  return item_cache(box, place, item, parent_path);
}

}  // namespace tarvex::box
