#include "config/authority.h"

#include "base/number.h"
#include "base/text.h"

#include <algorithm>

namespace tarvex::server {

namespace asio = boost::asio;

namespace {

bool is_host_name(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char byte) {
    return is_alphanumeric(byte) || byte == '.' || byte == '-' || byte == '_';
  });
}

/// An IPv6 address. One with a scope is none here: an interface's name means nothing in a URL.
std::optional<asio::ip::address> ipv6_parse(std::string_view text) {
  boost::system::error_code error;
  const auto address = asio::ip::make_address_v6(text, error);
  if (error || text.find('%') != std::string_view::npos) return std::nullopt;
  return address;
}

std::optional<asio::ip::address> ipv4_parse(std::string_view text) {
  boost::system::error_code error;
  const auto address = asio::ip::make_address_v4(text, error);
  return error ? std::nullopt : std::optional<asio::ip::address>(address);
}

}  // namespace

std::optional<authority> authority_parse(std::string_view text) {
  authority parts;
  const bool bracketed = text.starts_with('[');
  if (bracketed) {
    text.remove_prefix(1);
    if (text.find(']') == std::string_view::npos) return std::nullopt;
    parts.host = take_field(text, ']');
    parts.address = ipv6_parse(parts.host);
    if (!parts.address) return std::nullopt;
  } else {
    parts.host = text.substr(0, text.find(':'));
    text.remove_prefix(parts.host.size());
    parts.address = ipv4_parse(parts.host);
    if (!is_host_name(parts.host)) return std::nullopt;
  }
  if (text.empty()) return parts;
  if (text.front() != ':') return std::nullopt;
  parts.port = parse_number<std::uint16_t>(text.substr(1));
  return parts.port ? std::optional(parts) : std::nullopt;
}

}  // namespace tarvex::server
