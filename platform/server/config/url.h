#pragma once

#include <string_view>

namespace tarvex::server {

/// Whether `text` is "http://HOST[:PORT]" or "https://HOST[:PORT]", without user, path, query or trailing slash; a host
/// is a name, an IPv4 address or an IPv6 address in brackets, a port 1 to 65535.
[[nodiscard]] bool is_base_url(std::string_view text);

}  // namespace tarvex::server
