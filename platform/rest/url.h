#pragma once

#include "tarvex_dsi_rest.h"

#include <string>

namespace tarvex::rest {

/// Where a request goes.
struct target {
  std::string url;   ///< with the query
  std::string peer;  ///< "host:port", for messages
};

/// Checks an absolute http or https URL and appends the query, percent-encoded (RFC 3986 section 2.3).
/// \param query  pairs without key or value are left out; null: none
[[nodiscard]] tarvex_result_t make_target(const char* uri, const tarvex_dsi_rest_key_array_t* query, target& out);

}  // namespace tarvex::rest
