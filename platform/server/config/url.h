#pragma once

#include <string>
#include <string_view>

namespace tarvex::server {

/// Whether `text` is "http://HOST[:PORT]" or "https://HOST[:PORT]", without user, path, query or trailing slash; a host
/// is a name, an IPv4 address or an IPv6 address in brackets, a port 1 to 65535.
[[nodiscard]] bool is_base_url(std::string_view text);

/// Whether `text` is "SCHEME://[USER[:PASSWORD]@]HOST[:PORT]" of a proxy, as libcurl takes it. User and password stand
/// there percent-encoded where need be.
[[nodiscard]] bool is_proxy_url(std::string_view text);

/// Whether `text` is "https://HOST[:PORT]/[PATH]", or the same with "http" and a host that is this one: localhost,
/// 127.0.0.0/8 or [::1]. Without user, query and fragment.
[[nodiscard]] bool is_private_url(std::string_view text);

/// The schemes of proxies, for people.
[[nodiscard]] std::string proxy_schemes();

}  // namespace tarvex::server
