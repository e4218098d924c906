#pragma once

#include "box/box_state.h"
#include "http/message.h"

namespace tarvex::emulator {

/// Answers one request to Box: journal, faults, token, rate limit, handler, usual headers. Called by many threads at
/// once. Throws connection_lost.
[[nodiscard]] response router_answer(box_state& box, request& in);

}  // namespace tarvex::emulator
