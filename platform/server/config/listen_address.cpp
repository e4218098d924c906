#include "config/listen_address.h"

#include "config/authority.h"

namespace tarvex::server {

std::optional<listen_address> listen_address_parse(std::string_view text) {
  const std::optional<authority> parts = authority_parse(text);
  if (!parts || !parts->address || !parts->port) return std::nullopt;
  return listen_address{*parts->address, *parts->port};
}

std::string listen_address_text(const listen_address& address) {
  const std::string host = address.host.to_string();
  return (address.host.is_v6() ? "[" + host + "]" : host) + ":" + std::to_string(address.port);
}

}  // namespace tarvex::server
