/// \file
/// What the fuzz targets share. Each target is one function that gets bytes of libFuzzer's making; a sanitizer's
/// report, a hang or a broken `must` is what it looks for.
#pragma once

#include <string_view>

namespace tarvex::fuzz {

/// The target's own.
void run(std::string_view bytes);

/// Stops the program when what has to hold for every input does not.
inline void must(bool holds) {
  if (!holds) __builtin_trap();
}

/// Cuts one byte off, as a number that steers the rest; 0 when there is none.
inline unsigned take_byte(std::string_view& bytes) {
  if (bytes.empty()) return 0;
  const auto byte = static_cast<unsigned char>(bytes.front());
  bytes.remove_prefix(1);
  return byte;
}

}  // namespace tarvex::fuzz
