#pragma once

#include "api/call.h"

namespace tarvex::emulator {

/// GET /2.0/folders/:id/items and /2.0/folders/trash/items, by markers or by offsets.
[[nodiscard]] response folder_items(call& of);
[[nodiscard]] response trash_items(call& of);

}  // namespace tarvex::emulator
