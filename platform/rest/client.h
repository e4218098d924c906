#pragma once

#include "curl_handles.h"
#include "tarvex_common.h"

namespace tarvex::rest {

/// The libcurl handles of one thread. Connections, TLS sessions and resolved names live in them from request to
/// request, until the thread ends.
struct client {
  multi_ptr multi;
  easy_ptr easy;
  bool busy = false;  ///< a request is running
};

/// The calling thread's client for the length of one request. A request inside a callback of another one is refused.
class client_lease {
 public:
  client_lease() = default;
  client_lease(const client_lease&) = delete;
  client_lease& operator=(const client_lease&) = delete;
  ~client_lease();

  /// Makes the client when this is the thread's first request.
  [[nodiscard]] tarvex_result_t acquire();

  /// The request failed: its handle is not used again. One whose name did not resolve keeps its buffer, and refuses to
  /// be given the size of another. The connections stay.
  void spoil() noexcept { spoilt_ = true; }

  [[nodiscard]] CURL* easy() const noexcept { return client_->easy.get(); }
  [[nodiscard]] CURLM* multi() const noexcept { return client_->multi.get(); }

 private:
  client* client_ = nullptr;
  bool spoilt_ = false;
};

}  // namespace tarvex::rest
