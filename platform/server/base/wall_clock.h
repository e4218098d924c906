#pragma once

#include <chrono>

namespace tarvex::server {

/// The time by the wall clock, UTC.
inline std::chrono::sys_seconds wall_clock() {
  return std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
}

}  // namespace tarvex::server
