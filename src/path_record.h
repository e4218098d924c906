/// \file
/// Records of the path cache.
#pragma once

#include "tarvex_box_common.h"

#include <string_view>

namespace tarvex::box {

/// A copy of `info` for the path cache, under the path `base`/name (an empty base: under its name). A session may keep
/// tens of thousands: name, id and SHA-1 lie in the record's own allocation, and live and go with it; what changes in
/// place, parent and MD5, does not. `tarvex_box_path_info_free` releases it all.
/// \return null for a record without name or id, and when memory is out
[[nodiscard]] tarvex_box_path_info_t* path_record_new(const tarvex_box_path_info_t& info, std::string_view base);

}  // namespace tarvex::box
