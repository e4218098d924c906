#include "trace.h"

namespace tarvex::box {

trace_scope::trace_scope(const char* function) noexcept : function_(function) {
  TARVEX_BOX_LOG(TARVEX_BOX_TRACE, function_, "enter\n");
}

void trace_scope::leave() const noexcept {
  TARVEX_BOX_LOG(TARVEX_BOX_TRACE, function_, "exit\n");
}

void trace_exit(tarvex_result_t result, tarvex_object_t* error, const char* function) noexcept {
  if (result == TARVEX_SUCCESS) {
    TARVEX_BOX_LOG(TARVEX_BOX_TRACE, function, "exit: result=TARVEX_SUCCESS\n");
    return;
  }
  const c_string message(tarvex_error_print_chain(error));
  TARVEX_BOX_LOG(debug_level(TARVEX_BOX_ERROR), function, "exit: result=%#x message=%s\n", result,
                 message ? message.get() : "");
}

tarvex_result_t trace_exit(tarvex_result_t result, const char* function) noexcept {
  trace_exit(result, tarvex_error_peek(result), function);
  return result;
}

}  // namespace tarvex::box
