/// \file
/// What the commands that make and move items share.
#pragma once

#include "request.h"

#include <string>

namespace tarvex::box {

/// A path cut at its last slash. A path without one stops the process: the framework hands none over.
struct split_path {
  std::string parent;  ///< empty for an item of the root folder
  std::string name;
};
split_path path_split(const std::string& path, const char* function = __builtin_FUNCTION());

/// {"name": name, "parent": {"id": parent_id}}; null when the name is no UTF-8.
json_ptr placement(const std::string& name, const char* parent_id);

/// Enters the item that Box answered with into the path cache, below the folder at `parent_path`.
[[nodiscard]] tarvex_result_t item_entered(tarvex_box_session_t* box, const error_place& place, json_t* document,
                                           const char* parent_path);

/// Releases what a record on the stack owns.
struct item_record : tarvex_box_path_info_t {
  item_record() : tarvex_box_path_info_t{} {}
  item_record(const item_record&) = delete;
  item_record& operator=(const item_record&) = delete;
  ~item_record() { tarvex_box_path_info_free(this); }
};

/// Parses one item of an answer into a fresh record; a failure is "Failed info_parse!".
[[nodiscard]] tarvex_result_t item_parse(const error_place& place, json_t* document, item_record& item);

/// Enters a record into the path cache; a failure is "Failed cache update!".
[[nodiscard]] tarvex_result_t item_cache(tarvex_box_session_t* box, const error_place& place, const item_record& item,
                                         const char* parent_path);

}  // namespace tarvex::box
