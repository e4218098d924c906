#pragma once

#include "tarvex_common.h"

#include <curl/curl.h>

#include <new>
#include <string>

namespace tarvex::rest {

/// Whether another attempt at the same request may succeed.
enum class attempt { useless, may_help };

/// Makes an error of this client. The message is for people: hosts may stand in it, but no query, header or token.
[[nodiscard, gnu::format(printf, 2, 3)]] tarvex_result_t fail(attempt another, const char* format, ...) noexcept;

/// Makes the error for a transfer that libcurl gave up.
/// \param peer           "host:port"
/// \param system_errno   errno of the call that failed; 0: unknown
/// \param detail         libcurl's own words, used where they say more; may be empty
[[nodiscard]] tarvex_result_t fail_transport(CURLcode code, const std::string& peer, long system_errno,
                                             const char* detail) noexcept;

/// Whether the outermost error behind `result` is one of this client's that another attempt may cure.
[[nodiscard]] bool may_help(tarvex_result_t result) noexcept;

[[nodiscard]] inline tarvex_result_t out_of_memory() noexcept {
  return tarvex_error_put(nullptr);
}

/// A second handle on the error behind `result`, for results that someone else will release.
[[nodiscard]] inline tarvex_result_t copy_result(tarvex_result_t result) noexcept {
  if (result == TARVEX_SUCCESS) return TARVEX_SUCCESS;
  tarvex_object_t* const error = tarvex_error_peek(result);
  tarvex_object_reference(error);
  return tarvex_error_put(error);
}

/// Runs `work`, which returns a result, and turns what it throws into one.
template <typename Work>
[[nodiscard]] tarvex_result_t guarded(Work&& work) noexcept {
  try {
    return work();
  } catch (const std::bad_alloc&) {
    return out_of_memory();
  } catch (...) {
    return fail(attempt::useless, "The request failed inside the client.");
  }
}

}  // namespace tarvex::rest
