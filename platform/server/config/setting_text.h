#pragma once

#include "config/configuration.h"

#include <optional>
#include <string>
#include <string_view>

namespace tarvex::server {

/// "IPv4:port" or "[IPv6]:port", numeric, port 0 to 65535.
std::optional<listen_address> listen_address_parse(std::string_view text);

/// The same the other way round.
std::string listen_address_text(const listen_address& address);

/// Whether `text` is a numeric IPv4 address.
bool is_ipv4_address(const std::string& text);

/// Whether `text` is "http://HOST[:PORT]" or "https://HOST[:PORT]", without user, path, query or trailing slash; a host
/// is a name, an IPv4 address or an IPv6 address in brackets.
bool is_base_url(std::string_view text);

/// Whether `text` may be part of a symbol's name: letters, digits and "_", at least one.
bool is_symbol_part(std::string_view text);

/// Loads certificate chain and key as a TLS server does. \return what is wrong with them; empty when they fit.
std::string tls_files_error(const std::string& certificate, const std::string& key);

}  // namespace tarvex::server
