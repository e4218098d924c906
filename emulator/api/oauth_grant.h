#pragma once

#include "api/call.h"
#include "box/app.h"

#include <string_view>

namespace tarvex::emulator {

/// Answers one grant of the token address, for a client that has shown its secret. Throws problem. Inside a
/// transaction.
using grant_handler = response (*)(const call& of, const app& client, const pair_list& form);

/// The handler of a grant_type; null when there is none.
[[nodiscard]] grant_handler grant_find(std::string_view grant_type);

}  // namespace tarvex::emulator
