#pragma once

#include "api/call.h"

namespace tarvex::emulator {

/// GET /2.0/events: an empty stream whose position does not move.
[[nodiscard]] response event_list(call& of);

}  // namespace tarvex::emulator
