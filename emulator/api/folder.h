#pragma once

#include "api/call.h"

namespace tarvex::emulator {

/// POST /2.0/folders; GET, PUT, DELETE /2.0/folders/:id; POST /2.0/folders/:id/copy.
[[nodiscard]] response folder_create(call& of);
[[nodiscard]] response folder_get(call& of);
[[nodiscard]] response folder_update(call& of);
[[nodiscard]] response folder_delete(call& of);
[[nodiscard]] response folder_copy(call& of);

}  // namespace tarvex::emulator
