#pragma once

#include "api/call.h"

namespace tarvex::emulator {

/// GET, PUT, DELETE /2.0/files/:id and POST /2.0/files/:id/copy.
[[nodiscard]] response file_get(call& of);
[[nodiscard]] response file_update(call& of);
[[nodiscard]] response file_delete(call& of);
[[nodiscard]] response file_copy(call& of);

}  // namespace tarvex::emulator
