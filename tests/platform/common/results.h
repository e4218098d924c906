/// \file
/// Results and lists of pairs, as tests make and read them.
#pragma once

#include "tarvex_common.hpp"

#include <string>

/// The printed chain of a result, which is released.
inline std::string text_of(tarvex_result_t result) {
  const tarvex::owned_result owned(result);
  const tarvex::c_string text(tarvex_error_print_chain(tarvex_error_peek(result)));
  return text ? text.get() : "(null)";
}

/// A failure whose message is `text`.
inline tarvex_result_t failure(const char* text, int number = 1) {
  return tarvex_error_put(
      tarvex_error_construct_error(nullptr, nullptr, number, __FILE__, __func__, __LINE__, "%s", text));
}
