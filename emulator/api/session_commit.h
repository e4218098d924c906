#pragma once

#include "api/call.h"

namespace tarvex::emulator {

/// POST /api/2.0/files/upload_sessions/:id/commit: makes the file of the parts; 202 while they are being put together.
[[nodiscard]] response session_commit(call& of);

}  // namespace tarvex::emulator
