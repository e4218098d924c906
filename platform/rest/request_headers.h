#pragma once

#include "curl_handles.h"
#include "tarvex_dsi_rest.h"

#include <curl/curl.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tarvex::rest {

/// Refuses a pair that could break the message's framing: a key that is no token, or a value with CR or LF
/// (RFC 9110 section 5.5).
[[nodiscard]] tarvex_result_t check_header(const tarvex_dsi_rest_key_value_t& pair);

/// Whether `text` is a token (RFC 9110 section 5.6.2), as header names and methods are.
[[nodiscard]] bool is_token(std::string_view text) noexcept;

/// Value of the first pair whose key is `key` without regard to case, borrowed; null when there is none.
[[nodiscard]] const char* find_header(const tarvex_dsi_rest_key_array_t* headers, const char* key) noexcept;

/// The request's headers as libcurl takes them, and what the client itself has to know of them.
class request_headers {
 public:
  /// Checks the headers and takes them in their order. A null value is as if the pair were absent; an empty one
  /// suppresses the header wherever it stands in the list.
  [[nodiscard]] tarvex_result_t assign(const tarvex_dsi_rest_key_array_t* headers);

  [[nodiscard]] curl_slist* list() const noexcept { return list_.get(); }

  std::optional<std::uint64_t> content_length;  ///< as the caller gave it
  bool length_suppressed = false;               ///< no Content-Length is to be sent
  bool coding_given = false;                    ///< the caller chose a Transfer-Encoding
  bool coding_suppressed = false;               ///< no Transfer-Encoding is to be sent

 private:
  [[nodiscard]] tarvex_result_t append(const std::string& line);
  [[nodiscard]] tarvex_result_t append_pair(const tarvex_dsi_rest_key_value_t& pair);
  [[nodiscard]] tarvex_result_t note_framing(const tarvex_dsi_rest_key_value_t& pair);

  list_ptr list_;
};

/// First byte of a "Range: bytes=FIRST-..." header (RFC 9110 section 14.2); nothing for every other value.
[[nodiscard]] std::optional<std::int64_t> range_start(const char* value) noexcept;

/// The "boundary" parameter of a multipart "Content-Type" value (RFC 2046 section 5.1.1); empty when there is no
/// usable one.
[[nodiscard]] std::string multipart_boundary(const char* content_type);

}  // namespace tarvex::rest
