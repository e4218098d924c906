#pragma once

#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <utility>

namespace tarvex::server {

/// Releases a C library's handle through that library's own function.
template <auto release>
struct handle_releaser {
  template <typename T>
  void operator()(T* handle) const noexcept {
    release(handle);
  }
};

/// A text that a C interface allocated.
using c_string = std::unique_ptr<char, handle_releaser<std::free>>;

/// Owns a file descriptor; -1 is none.
class descriptor {
 public:
  explicit descriptor(int fd = -1) : fd_(fd) {}
  descriptor(descriptor&& other) noexcept : fd_(other.release()) {}
  descriptor& operator=(descriptor&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~descriptor() {
    if (fd_ >= 0) ::close(fd_);
  }

  [[nodiscard]] int get() const { return fd_; }
  [[nodiscard]] int release() { return std::exchange(fd_, -1); }

 private:
  int fd_;
};

}  // namespace tarvex::server
