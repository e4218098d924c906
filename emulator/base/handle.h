#pragma once

namespace tarvex::emulator {

/// Releases a C library's handle through that library's own function, for std::unique_ptr.
template <auto release>
struct handle_releaser {
  template <typename T>
  void operator()(T* handle) const noexcept {
    release(handle);
  }
};

}  // namespace tarvex::emulator
