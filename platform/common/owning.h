#pragma once

#include "tarvex_common.h"

#include <cstdlib>
#include <memory>

namespace tarvex::common {

/// Releases a handle through the function that belongs to it.
template <auto release>
struct handle_releaser {
  template <typename T>
  void operator()(T* handle) const noexcept {
    release(handle);
  }
};

/// A string from malloc, as it crosses the C boundary.
using c_string = std::unique_ptr<char, handle_releaser<std::free>>;

/// One reference to an object.
using object_ptr = std::unique_ptr<tarvex_object_t, handle_releaser<tarvex_object_free>>;

}  // namespace tarvex::common
