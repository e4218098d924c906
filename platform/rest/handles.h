#pragma once

#include "tarvex_common.h"

#include <curl/curl.h>
#include <jansson.h>
#include <cstdlib>
#include <memory>
#include <utility>

namespace tarvex::rest {

/// Releases a handle through the function that belongs to it.
template <auto release>
struct handle_releaser {
  template <typename T>
  void operator()(T* handle) const noexcept {
    release(handle);
  }
};

using easy_ptr = std::unique_ptr<CURL, handle_releaser<curl_easy_cleanup>>;
using multi_ptr = std::unique_ptr<CURLM, handle_releaser<curl_multi_cleanup>>;
using url_ptr = std::unique_ptr<CURLU, handle_releaser<curl_url_cleanup>>;
using curl_string = std::unique_ptr<char, handle_releaser<curl_free>>;
using json_ptr = std::unique_ptr<json_t, handle_releaser<json_decref>>;
using c_string = std::unique_ptr<char, handle_releaser<std::free>>;

/// Keeps the first failure of several and releases those that follow from it.
class first_failure {
 public:
  first_failure() = default;
  first_failure(const first_failure&) = delete;
  first_failure& operator=(const first_failure&) = delete;
  ~first_failure() { tarvex_result_release(kept_); }

  explicit operator bool() const noexcept { return kept_ != TARVEX_SUCCESS; }

  /// Takes `result` over. Success changes nothing.
  void note(tarvex_result_t result) noexcept {
    if (kept_ == TARVEX_SUCCESS) {
      kept_ = result;
    } else {
      tarvex_result_release(result);
    }
  }

  /// The failure, which is the caller's from now on; success when there was none.
  [[nodiscard]] tarvex_result_t take() noexcept { return std::exchange(kept_, TARVEX_SUCCESS); }

 private:
  tarvex_result_t kept_ = TARVEX_SUCCESS;
};

}  // namespace tarvex::rest
