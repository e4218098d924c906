#include "net/socket_address.h"

namespace tarvex::server {

boost::asio::ip::address address_plain(const boost::asio::ip::address& address) {
  namespace ip = boost::asio::ip;
  if (!address.is_v6() || !address.to_v6().is_v4_mapped()) return address;
  return ip::make_address_v4(ip::v4_mapped, address.to_v6());
}

}  // namespace tarvex::server
