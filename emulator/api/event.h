#pragma once

#include "api/call.h"

#include <string_view>

namespace tarvex::emulator {

/// Enters an event about an item ("ITEM_UPLOAD") for the caller and, where that is another, for the item's owner.
/// Inside a transaction, when nothing can be refused any more.
void event_note(const call& of, std::string_view type, const item& subject);

/// GET /2.0/events: those behind `stream_position` (0: from the first; "now": none, and the position to begin at).
[[nodiscard]] response event_list(call& of);

/// OPTIONS /2.0/events: where to wait for the next one; and GET /events/:channel, which waits until there is one.
[[nodiscard]] response event_realtime(call& of);
[[nodiscard]] response event_wait(call& of);

}  // namespace tarvex::emulator
