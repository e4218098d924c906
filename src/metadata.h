/// \file
/// Properties of items, for callers that need to know how Box refused one.
#pragma once

#include "tarvex_box_common.h"

namespace tarvex::box {

/// Stores a string property as `tarvex_i_box_set_metadata` does.
/// \param status  takes the HTTP status of the last answer, 0: none came
[[nodiscard]] tarvex_result_t metadata_store(tarvex_box_session_t* box, tarvex_box_path_info_t* path_info,
                                             const char* key, const char* value, int& status);

}  // namespace tarvex::box
