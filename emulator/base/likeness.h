#pragma once

#include "base/settings.h"

#include <string>
#include <string_view>

namespace tarvex::emulator {

/// Sets all that a likeness ("box", "box-on-a-bad-day") stands for. Returns an empty text, or which ones there are.
[[nodiscard]] std::string likeness_apply(settings& values, std::string_view name);

/// One paragraph for each likeness with its settings.
[[nodiscard]] std::string likeness_help();

}  // namespace tarvex::emulator
