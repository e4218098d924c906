/// \file
/// What the uploads share: the modification time, and the answer that ends an upload.
#pragma once

#include "item.h"
#include "request.h"

#include <functional>
#include <string>

namespace tarvex::box {

/// The modification time that the client announced, as Box takes it; empty: none.
[[nodiscard]] tarvex_result_t recv_modification_time(tarvex_gfs_operation_t op, std::string& text);

/// Enters the items of the answer that ends an upload into the path cache, after `each` has seen them (empty: nothing
/// does). An answer without "entries" is fine; none at all is an error.
[[nodiscard]] tarvex_result_t recv_entries_store(tarvex_box_session_t* box, const error_place& place, json_t* document,
                                                 const char* parent_path,
                                                 const std::function<tarvex_result_t(item_record&)>& each = {});

}  // namespace tarvex::box
