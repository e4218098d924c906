#pragma once

#include <string>

#include "api/call.h"

namespace tarvex::emulator {

/// Whether a request is for the control addresses below /_emulator/. They are neither journalled nor faulty.
[[nodiscard]] bool control_is_for(const request& in);

/// Answers a control request.
[[nodiscard]] response control_answer(box_state& box, request& in);

/// Explains the control addresses, for --help.
[[nodiscard]] std::string control_help();

}  // namespace tarvex::emulator
