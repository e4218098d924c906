#pragma once

#include "api/call.h"

namespace tarvex::emulator {

/// POST /api/2.0/files/content and /api/2.0/files/:id/content (a new version), multipart/form-data.
[[nodiscard]] response upload_file(call& of);
[[nodiscard]] response upload_version(call& of);

/// OPTIONS /2.0/files/content and /2.0/files/:id/content: would this upload be taken?
[[nodiscard]] response upload_preflight(call& of);
[[nodiscard]] response upload_preflight_version(call& of);

}  // namespace tarvex::emulator
