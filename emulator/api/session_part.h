#pragma once

#include "api/call.h"

namespace tarvex::emulator {

/// PUT /api/2.0/files/upload_sessions/:id: one part, by Content-Range and Digest. Parts may come in any order and side
/// by side.
[[nodiscard]] response session_put_part(call& of);

}  // namespace tarvex::emulator
