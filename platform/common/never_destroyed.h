#pragma once

namespace tarvex::common {

/// Holds a process-wide value that is there before the first constructor runs and is never destroyed, so that exit
/// handlers and detached threads may use it to the end. Declare it `constinit`.
template <typename T>
union never_destroyed {
  constexpr never_destroyed() : value() {}
  never_destroyed(const never_destroyed&) = delete;
  never_destroyed& operator=(const never_destroyed&) = delete;
  ~never_destroyed() {}

  T value;
};

}  // namespace tarvex::common
