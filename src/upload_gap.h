/// \file
/// Where an upload whose parts went side by side has its first gap, and what Box has beyond it.
#pragma once

#include "error.h"
#include "json_ptr.h"
#include "tarvex_box_common.h"

#include <cstdint>

namespace tarvex::box {

/// File offset of the first byte that Box is not known to have.
uint64_t upload_gap(const tarvex_box_upload_session_t& upload);

/// Remembers a part beyond the gap. Box's record is borrowed; without memory the part is sent again some day.
void upload_gap_note(tarvex_box_upload_session_t& upload, int index, json_t* record) noexcept;

/// Box's record of such a part, borrowed; null: none.
json_t* upload_gap_find(const tarvex_box_upload_session_t& upload, int index);

/// 553 for a store that goes on elsewhere; the message says where it can go on.
[[nodiscard]] tarvex_result_t upload_gap_refusal(const tarvex_box_upload_session_t& upload);

/// Adds a line to a failure, which is taken over: Box-Upload-Offset, the offset of the gap.
[[nodiscard]] tarvex_result_t upload_gap_name(const tarvex_box_upload_session_t& upload, tarvex_result_t failure);

}  // namespace tarvex::box
