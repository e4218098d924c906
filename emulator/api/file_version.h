#pragma once

#include "api/call.h"

namespace tarvex::emulator {

/// GET /2.0/files/:id/versions (the earlier ones, newest first) and GET, PUT, DELETE of one; PUT takes a version out of
/// the trash with {"trashed_at":null}.
[[nodiscard]] response file_version_list(call& of);
[[nodiscard]] response file_version_get(call& of);
[[nodiscard]] response file_version_restore(call& of);
[[nodiscard]] response file_version_delete(call& of);

/// POST /2.0/files/:id/versions/current: an earlier version becomes the newest again, as a version of its own.
[[nodiscard]] response file_version_promote(call& of);

}  // namespace tarvex::emulator
