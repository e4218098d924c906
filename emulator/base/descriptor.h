#pragma once

#include <unistd.h>

#include <utility>

namespace tarvex::emulator {

/// Owns a file descriptor and closes it. -1: none.
class descriptor {
 public:
  descriptor() = default;
  explicit descriptor(int fd) noexcept : fd_(fd) {}
  descriptor(descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  descriptor& operator=(descriptor&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~descriptor() {
    if (fd_ >= 0) ::close(fd_);
  }

  [[nodiscard]] int get() const noexcept { return fd_; }
  [[nodiscard]] explicit operator bool() const noexcept { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

}  // namespace tarvex::emulator
