#pragma once

#include "base/settings.h"

#include <cstdint>
#include <span>
#include <string_view>
#include <variant>

namespace tarvex::emulator {

/// A number, a probability (0 to 1), a switch or a text.
using setting_member =
    std::variant<std::int64_t settings::*, double settings::*, bool settings::*, std::string settings::*>;

/// One setting as the command line and the control address know it.
struct setting_row {
  std::string_view name;
  setting_member place;
  std::string_view choices;  // "a|b" for texts that take only these, "a,b" for lists of them; empty: any
  std::string_view help;
  std::int64_t least = INT64_MIN;  // of a number
};

/// All of them, in the order of --help.
[[nodiscard]] std::span<const setting_row> setting_rows();

}  // namespace tarvex::emulator
