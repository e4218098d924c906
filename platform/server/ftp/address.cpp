#include "ftp/address.h"

#include "base/number.h"
#include "base/text.h"

#include <algorithm>
#include <array>

namespace tarvex::server {

namespace asio = boost::asio;

namespace {

/// A numeric address of the family that a protocol number of RFC 2428 means; of either for other protocols.
std::optional<asio::ip::address> address_parse(std::string_view protocol, std::string_view text) {
  boost::system::error_code error;
  const asio::ip::address address = asio::ip::make_address(text, error);
  if (error || (protocol == "1" && !address.is_v4()) || (protocol == "2" && !address.is_v6())) return std::nullopt;
  return address;
}

}  // namespace

std::optional<host_port> port_address_parse(std::string_view text) {
  std::array<std::uint8_t, 6> field{};
  if (std::count(text.begin(), text.end(), ',') != field.size() - 1) return std::nullopt;
  for (std::uint8_t& value : field) {
    const auto parsed = parse_number<std::uint8_t>(take_field(text, ','));
    if (!parsed) return std::nullopt;
    value = *parsed;
  }
  return host_port{asio::ip::address_v4({field[0], field[1], field[2], field[3]}),
                   static_cast<std::uint16_t>(field[4] << 8 | field[5])};
}

std::string port_address_format(const asio::ip::address_v4& host, std::uint16_t port) {
  std::string text = host.to_string();
  std::replace(text.begin(), text.end(), '.', ',');
  return text + "," + std::to_string(port / 256) + "," + std::to_string(port % 256);
}

std::optional<extended_address> extended_address_parse(std::string_view text) {
  constexpr std::ptrdiff_t SEPARATORS = 4;
  if (text.empty()) return std::nullopt;
  const char separator = text.front();
  if (std::count(text.begin(), text.end(), separator) != SEPARATORS || text.back() != separator) return std::nullopt;
  text.remove_prefix(1);
  extended_address address;
  address.protocol = take_field(text, separator);
  if (!parse_number<unsigned>(address.protocol)) return std::nullopt;
  const auto host = address_parse(address.protocol, take_field(text, separator));
  const auto port = parse_number<std::uint16_t>(take_field(text, separator));
  if (host && port) address.target = host_port{*host, *port};
  return address;
}

bool same_host(const asio::ip::address& a, const asio::ip::address& b) {
  if (a.is_v6() && b.is_v6()) return a.to_v6().to_bytes() == b.to_v6().to_bytes();
  return a == b;
}

}  // namespace tarvex::server
