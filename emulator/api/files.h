#pragma once

#include "api/call.h"

namespace tarvex::emulator {

/// GET, PUT, DELETE /2.0/files/:id and POST /2.0/files/:id/copy.
[[nodiscard]] response file_get(call& of);
[[nodiscard]] response file_update(call& of);
[[nodiscard]] response file_delete(call& of);
[[nodiscard]] response file_copy(call& of);

/// GET /2.0/files/:id/content: 302 to a download URL of this version.
[[nodiscard]] response file_content(call& of);

/// GET /d/1/:key/download: the bytes, with Range.
[[nodiscard]] response download(call& of);

}  // namespace tarvex::emulator
