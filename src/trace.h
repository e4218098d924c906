/// \file
/// The outer layer of every operation: its entry and exit lines, and the net for exceptions.
#pragma once

#include "debug.h"
#include "error.h"
#include "tarvex_box_common.h"
#include "tarvex_common.hpp"

#include <utility>

namespace tarvex::box {

/// Exit line with a result, which comes back. `error` is the error behind it.
void trace_exit(tarvex_result_t result, tarvex_object_t* error, const char* function) noexcept;
tarvex_result_t trace_exit(tarvex_result_t result, const char* function = __builtin_FUNCTION()) noexcept;

/// Entry line on construction; exit line on `leave`.
class trace_scope {
 public:
  explicit trace_scope(const char* function = __builtin_FUNCTION()) noexcept;
  /// Exit of an operation without a result.
  void leave() const noexcept;
  /// Exit with a result, which comes back.
  tarvex_result_t leave(tarvex_result_t result) const noexcept { return trace_exit(result, function_); }

 private:
  const char* function_;
};

/// Runs `work`, which yields a result; what it throws becomes one.
template <typename Work>
[[nodiscard]] tarvex_result_t guarded(Work&& work) noexcept {
  try {
    return std::forward<Work>(work)();
  } catch (...) {
    return error_memory();
  }
}

/// An operation that returns a result.
template <typename Work>
[[nodiscard]] tarvex_result_t traced(Work&& work, const char* function = __builtin_FUNCTION()) noexcept {
  const trace_scope scope(function);
  return scope.leave(guarded(std::forward<Work>(work)));
}

/// Hands a result to the framework, which owns it then, and traces it.
template <typename Report>
void report_result(tarvex_result_t result, Report&& report, const char* function = __builtin_FUNCTION()) noexcept {
  tarvex_object_t* const error = tarvex_error_peek(result);
  tarvex_object_reference(error);
  const object_ptr held(error);
  std::forward<Report>(report)(result);
  trace_exit(result, error, function);
}

/// An operation that reports its result to the framework: `report` is called with it exactly once.
template <typename Work, typename Report>
void reported(Work&& work, Report&& report, const char* function = __builtin_FUNCTION()) noexcept {
  const trace_scope scope(function);
  report_result(guarded(std::forward<Work>(work)), std::forward<Report>(report), function);
}

}  // namespace tarvex::box
