#pragma once

#include <boost/asio/ip/address.hpp>

#include <cstdint>
#include <optional>
#include <string_view>

namespace tarvex::server {

/// "HOST", "HOST:PORT", "[IPv6]" or "[IPv6]:PORT" (the host and port of RFC 3986 section 3.2), taken apart.
struct authority {
  std::string_view host;                            ///< without brackets; borrowed from the text
  std::optional<boost::asio::ip::address> address;  ///< of a numeric host; one without brackets is IPv4, else IPv6
  std::optional<std::uint16_t> port;
};

/// \return nothing when the text is of none of these forms: no address in the brackets, a port that is no number, a
/// host without brackets of other than letters, digits, ".", "-" and "_".
[[nodiscard]] std::optional<authority> authority_parse(std::string_view text);

}  // namespace tarvex::server
