/// \file
/// Owning types for the handles of other libraries.
#pragma once

#include "tarvex_common.h"

#include <jansson.h>

#include <cstdlib>
#include <memory>

namespace tarvex::box {

/// Releases a C library's handle through that library's own function.
template <auto release>
struct handle_releaser {
  template <typename T>
  void operator()(T* handle) const noexcept {
    release(handle);
  }
};

inline void json_release(json_t* json) noexcept {
  json_decref(json);
}
inline void text_release(void* text) noexcept {
  std::free(text);
}

using json_ptr = std::unique_ptr<json_t, handle_releaser<json_release>>;  ///< one reference
using text_ptr = std::unique_ptr<char, handle_releaser<text_release>>;    ///< allocated C string or block
using object_ptr = std::unique_ptr<tarvex_object_t, handle_releaser<tarvex_object_free>>;  ///< one reference

}  // namespace tarvex::box
