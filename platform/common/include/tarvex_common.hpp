/// \file
/// Owning C++ types for what crosses a C boundary: handles of libraries, descriptors of the system, results and objects
/// of tarvex_common. Header only; who uses nothing but handles and descriptors need not link the library.
#pragma once

#include "tarvex_common.h"

#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <utility>

namespace tarvex {

#ifdef TARVEX_VERSION_MAJOR
/// The project's version, for module descriptors. The build gives it to whoever links tarvex_common; TARVEX_VERSION is
/// the same as text.
inline constexpr tarvex_version_t PROJECT_VERSION = {
    .major = TARVEX_VERSION_MAJOR, .minor = TARVEX_VERSION_MINOR, .timestamp = 0, .branch_id = 0};
#endif

/// Releases a C library's handle through that library's own function, for std::unique_ptr.
template <auto release>
struct releaser {
  template <typename T>
  void operator()(T* handle) const noexcept {
    release(handle);
  }
};

/// A C library's handle with its owner: `owner<EVP_MD_CTX, EVP_MD_CTX_free>`.
template <typename T, auto release>
using owner = std::unique_ptr<T, releaser<release>>;

/// Allocated text, as C interfaces hand it over.
using c_string = owner<char, std::free>;

/// One reference to an object of tarvex_common.
using object_ptr = owner<tarvex_object_t, tarvex_object_free>;

/// Owns a file descriptor and closes it; -1 is none.
class descriptor {
 public:
  explicit descriptor(int fd = -1) noexcept : fd_(fd) {}
  descriptor(descriptor&& other) noexcept : fd_(other.release()) {}
  descriptor& operator=(descriptor&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~descriptor() {
    if (fd_ >= 0) ::close(fd_);
  }

  [[nodiscard]] int get() const noexcept { return fd_; }
  [[nodiscard]] int release() noexcept { return std::exchange(fd_, -1); }
  [[nodiscard]] explicit operator bool() const noexcept { return fd_ >= 0; }

 private:
  int fd_;
};

/// Owns a result and the error object behind it.
class owned_result {
 public:
  owned_result() = default;
  explicit owned_result(tarvex_result_t result) noexcept : result_(result) {}
  owned_result(owned_result&& other) noexcept : result_(other.release()) {}
  owned_result& operator=(owned_result&& other) noexcept {
    std::swap(result_, other.result_);
    return *this;
  }
  ~owned_result() { tarvex_result_release(result_); }

  [[nodiscard]] tarvex_result_t get() const noexcept { return result_; }
  [[nodiscard]] tarvex_result_t release() noexcept { return std::exchange(result_, TARVEX_SUCCESS); }
  [[nodiscard]] bool ok() const noexcept { return result_ == TARVEX_SUCCESS; }

 private:
  tarvex_result_t result_ = TARVEX_SUCCESS;
};

}  // namespace tarvex
