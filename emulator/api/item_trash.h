#pragma once

#include "api/call.h"

namespace tarvex::emulator {

/// POST to the id of a trashed item, and GET and DELETE of .../trash.
[[nodiscard]] response trashed_restore(call& of, item_type type);
[[nodiscard]] response trashed_get(call& of, item_type type);
[[nodiscard]] response trashed_purge(call& of, item_type type);

}  // namespace tarvex::emulator
