#pragma once

#include "tarvex_common.h"

#include <exception>
#include <utility>

namespace tarvex::server {

/// Runs the body of a function with C linkage that returns a result; what it throws becomes an out-of-memory result.
template <typename Body>
tarvex_result_t guard_result(Body&& body) noexcept {
  try {
    return std::forward<Body>(body)();
  } catch (const std::exception&) {
    return tarvex_error_put(nullptr);
  }
}

}  // namespace tarvex::server
