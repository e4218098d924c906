#pragma once

#include "api/call.h"

namespace tarvex::emulator {

/// POST /api/2.0/files/upload_sessions and /api/2.0/files/:id/upload_sessions (a new version).
[[nodiscard]] response session_create(call& of);
[[nodiscard]] response session_create_version(call& of);

/// GET and DELETE /api/2.0/files/upload_sessions/:id; GET .../parts; POST .../log.
[[nodiscard]] response session_get(call& of);
[[nodiscard]] response session_abort(call& of);
[[nodiscard]] response session_parts(call& of);
[[nodiscard]] response session_log(call& of);

}  // namespace tarvex::emulator
