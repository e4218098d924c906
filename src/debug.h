/// \file
/// Lines of the debug log.
#pragma once

#include "tarvex_box_common.h"

/// One line at `level` by the function named `function`; nothing is evaluated while the level is off.
#define TARVEX_BOX_LOG(level, function, ...)                                      \
  do {                                                                            \
    if ((tarvex_i_TARVEX_BOX_debug_handle.levels & static_cast<unsigned>(level))) \
      tarvex::box::debug_line((level), (function), __VA_ARGS__);                  \
  } while (0)

/// The same at the DEBUG level.
#define TARVEX_BOX_LOG_DEBUG(function, ...) \
  TARVEX_BOX_LOG(tarvex::box::debug_level(TARVEX_BOX_DEBUG), function, __VA_ARGS__)

namespace tarvex::box {

/// `level`, or TRACE if that level has no name.
inline int debug_level(int level) {
  return tarvex_i_box_debug_level_names[level] != nullptr ? level : int{TARVEX_BOX_TRACE};
}

/// Prefix and text as one uninterrupted line. Use the macros.
[[gnu::format(printf, 3, 4)]] void debug_line(int level, const char* function, const char* format, ...) noexcept;

}  // namespace tarvex::box
