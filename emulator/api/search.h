#pragma once

#include "api/call.h"

namespace tarvex::emulator {

/// GET /2.0/search: items of the caller whose name contains `query`, by type, folders above and file extensions. What
/// else Box can search by is refused.
[[nodiscard]] response search_items(call& of);

}  // namespace tarvex::emulator
