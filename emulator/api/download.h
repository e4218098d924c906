#pragma once

#include "api/call.h"

namespace tarvex::emulator {

/// GET /2.0/files/:id/content: 302 to a download URL of this version.
[[nodiscard]] response download_redirect(call& of);

/// GET /d/1/:key/download: the bytes, with Range.
[[nodiscard]] response download_bytes(call& of);

}  // namespace tarvex::emulator
