#pragma once

#include <cstdlib>
#include <cstring>

namespace tarvex::box {

/// Puts a copy of `text` in the place of a record's own string; null: none. Without memory there is none either.
inline void text_replace(char*& own, const char* text) noexcept {
  std::free(own);
  own = text != nullptr ? strdup(text) : nullptr;
}

}  // namespace tarvex::box
