#pragma once

#include "api/call.h"

#include <string_view>

namespace tarvex::emulator {

/// POST .../copy of a file or a folder, with `parent` and perhaps `name`. `missing` is the kind that a 404 names.
[[nodiscard]] response item_copy(call& of, item_type type, std::string_view missing);

}  // namespace tarvex::emulator
