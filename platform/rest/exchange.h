#pragma once

#include "body.h"
#include "client.h"
#include "first_failure.h"
#include "request_headers.h"
#include "url.h"

#include <chrono>

namespace tarvex::rest {

/// How a request's body is framed (RFC 9112 section 6).
struct body_plan {
  bool send = false;                          ///< false: the request has no body, not even an empty one
  std::optional<std::uint64_t> length_bytes;  ///< nothing: chunked coding
};

/// One running request: hands libcurl's callbacks on to source and sink, and drives the transfer to its end.
class exchange {
 public:
  exchange(const tarvex_dsi_rest_callbacks_t& callbacks, const client_lease& lease)
      : callbacks_(callbacks), easy_(lease.easy()), multi_(lease.multi()) {}

  /// Makes everything ready; nothing is sent yet. Strings and lists are borrowed until `run` returns.
  [[nodiscard]] tarvex_result_t prepare(const char* method, const target& where, const request_headers& headers,
                                        const tarvex_dsi_rest_key_array_t* header_pairs);

  /// Performs the request on the calling thread.
  [[nodiscard]] tarvex_result_t run();

  [[nodiscard]] std::uint64_t bytes_sent() const;
  [[nodiscard]] std::uint64_t bytes_received() const noexcept { return received_; }
  /// Head of the answer, as far as it has come.
  [[nodiscard]] const response_head& head() const noexcept { return head_; }
  /// Whether the request was sent to its end, as far as can be known here.
  [[nodiscard]] bool sent_whole() const;
  /// How often it was sent: libcurl tries again by itself when a kept connection turns out to be closed.
  [[nodiscard]] unsigned times_sent() const noexcept { return times_sent_; }

 private:
  using clock = std::chrono::steady_clock;
  class pause;

  [[nodiscard]] CURLcode set_options(const char* method, const target& where, const request_headers& headers);
  [[nodiscard]] CURLcode set_body_options(const char* method);
  [[nodiscard]] CURLcode set_callbacks();
  [[nodiscard]] tarvex_result_t check_empty_body();
  [[nodiscard]] tarvex_result_t drive();
  [[nodiscard]] tarvex_result_t drive_once(bool& running);
  [[nodiscard]] tarvex_result_t report_progress();
  [[nodiscard]] tarvex_result_t judge();
  [[nodiscard]] tarvex_result_t announce();
  [[nodiscard]] tarvex_result_t pull(std::span<char> room, std::size_t& amount);
  [[nodiscard]] tarvex_result_t push(std::span<const char> piece);

  static std::size_t on_header(char* line, std::size_t size, std::size_t count, void* self) noexcept;
  static std::size_t on_body(char* piece, std::size_t size, std::size_t count, void* self) noexcept;
  static std::size_t on_room(char* room, std::size_t size, std::size_t count, void* self) noexcept;
  static int on_send(void* self, char*, char*, int, int) noexcept;
  static int on_seek(void* self, curl_off_t offset, int origin) noexcept;

  const tarvex_dsi_rest_callbacks_t& callbacks_;
  CURL* easy_;
  CURLM* multi_;
  std::string peer_;
  body_source source_;
  body_sink sink_;
  body_plan plan_;
  response_head head_;
  first_failure failure_;     ///< of a callback, the source or the sink
  bool range_full_ = false;   ///< the sink wants no more
  std::uint64_t pulled_ = 0;  ///< body bytes that the source gave
  unsigned times_sent_ = 0;
  bool pulled_all_ = false;  ///< a body of unknown length has come to its end
  std::uint64_t received_ = 0;
  std::uint64_t moved_ = 0;     ///< bytes in both directions when last looked at
  std::size_t head_bytes_ = 0;  ///< received before the body
  clock::time_point last_moved_;
  clock::time_point last_report_;
  char detail_[CURL_ERROR_SIZE] = {};
};

}  // namespace tarvex::rest
