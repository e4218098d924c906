#include "account/listening_loopback.h"

#include "account/account_failure.h"
#include "config/authority.h"

#include <sys/socket.h>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/ip/tcp.hpp>

#include <cerrno>
#include <cstring>
#include <string>

namespace tarvex::server {

namespace {

namespace ip = boost::asio::ip;

constexpr int BACKLOG = 16;
constexpr int ATTEMPTS = 20;  ///< to find a port that is free on both addresses of "localhost"

std::vector<ip::address> addresses_of(const redirect_address& redirect) {
  const auto parts = authority_parse(redirect.host);
  if (parts && parts->address) return {*parts->address};
  return {ip::address_v4::loopback(), ip::address_v6::loopback()};
}

descriptor listen_at(const ip::address& address, std::uint16_t port) {
  const ip::tcp::endpoint place(address, port);
  descriptor socket(::socket(address.is_v4() ? AF_INET : AF_INET6, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!socket || bind(socket.get(), place.data(), static_cast<socklen_t>(place.size())) != 0 ||
      listen(socket.get(), BACKLOG) != 0)
    return descriptor();
  return socket;
}

std::uint16_t port_of(const descriptor& socket) {
  ip::tcp::endpoint place;
  auto size = static_cast<socklen_t>(place.capacity());
  if (getsockname(socket.get(), place.data(), &size) != 0) return 0;
  place.resize(size);
  return place.port();
}

/// Whether the host has no such address at all, as without IPv6.
bool is_without(int error) {
  return error == EADDRNOTAVAIL || error == EAFNOSUPPORT;
}

/// \return the sockets; none when one of them was not to be had, and errno says why.
std::vector<descriptor> listen_once(const std::vector<ip::address>& addresses, std::uint16_t& port) {
  std::vector<descriptor> sockets;
  for (const ip::address& address : addresses) {
    descriptor socket = listen_at(address, port);
    if (!socket && addresses.size() > 1 && is_without(errno)) continue;
    if (!socket) return {};
    if (port == 0) port = port_of(socket);
    sockets.push_back(std::move(socket));
  }
  return sockets;
}

}  // namespace

std::vector<descriptor> listen_on_loopback(const redirect_address& redirect, std::uint16_t& port) {
  const std::vector<ip::address> addresses = addresses_of(redirect);
  for (int attempt = 0; attempt < (redirect.port ? 1 : ATTEMPTS); ++attempt) {
    port = redirect.port.value_or(0);
    auto sockets = listen_once(addresses, port);
    if (!sockets.empty()) return sockets;
  }
  throw account_failure(account_exit::refused, "the browser's answer cannot be awaited at " +
                                                   redirect.with_port(redirect.port) + ": " + std::strerror(errno) +
                                                   "; use --no-browser");
}

}  // namespace tarvex::server
