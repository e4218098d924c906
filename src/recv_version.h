/// \file
/// The small upload of a new version.
#pragma once

#include "version.h"

namespace tarvex::box {

/// Stores a small file as a new version of `target`, or anew when that has vanished meanwhile. The content is held in
/// memory for that, and may be as large as small uploads are.
[[nodiscard]] tarvex_result_t recv_version(tarvex_gfs_operation_t op, const tarvex_gfs_transfer_info_t& info,
                                           tarvex_box_session_t* box, const tarvex_box_path_info_t& parent,
                                           const version_target& target);

}  // namespace tarvex::box
