/// \file
/// Box items as records that borrow their texts.
#pragma once

#include "tarvex_box_common.h"

namespace tarvex::box {

/// As `tarvex_box_object_info_parse`, but the record borrows its texts from `json`: it is not released.
[[nodiscard]] tarvex_result_t item_fields_parse(json_t* json, tarvex_box_path_info_t* info);

}  // namespace tarvex::box
