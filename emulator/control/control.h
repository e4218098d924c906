#pragma once

#include "box/box_state.h"
#include "http/message.h"

#include <optional>
#include <string>

namespace tarvex::emulator {

/// Answers a request to the control addresses below /_emulator/; nothing when it is for Box itself. Control requests
/// are neither journalled nor faulty.
[[nodiscard]] std::optional<response> control_answer(box_state& box, request& in);

/// Explains the control addresses, for --help.
[[nodiscard]] std::string control_help();

}  // namespace tarvex::emulator
