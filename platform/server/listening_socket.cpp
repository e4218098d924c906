#include "listening_socket.h"

#include <sys/socket.h>
#include <boost/asio/ip/tcp.hpp>

#include <cerrno>
#include <cstring>

namespace tarvex::server {

using boost::asio::ip::tcp;

namespace {

constexpr int BACKLOG = 1024;

template <auto query>
listen_address address_of(const descriptor& socket) {
  tcp::endpoint endpoint;
  auto size = static_cast<socklen_t>(endpoint.capacity());
  if (query(socket.get(), endpoint.data(), &size) != 0) return {};
  return {endpoint.address(), endpoint.port()};
}

}  // namespace

std::string listening_socket_open(const listen_address& address, descriptor& out) {
  const tcp::endpoint endpoint(address.host, address.port);
  out = descriptor(socket(endpoint.protocol().family(), SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const int on = 1;
  const bool ready = out && setsockopt(out.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0 &&
                     (address.host.is_v4() || setsockopt(out.get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on) == 0) &&
                     bind(out.get(), endpoint.data(), static_cast<socklen_t>(endpoint.size())) == 0 &&
                     listen(out.get(), BACKLOG) == 0;
  return ready ? "" : std::strerror(errno);
}

listen_address socket_local_address(const descriptor& socket) {
  return address_of<getsockname>(socket);
}

listen_address socket_peer_address(const descriptor& socket) {
  return address_of<getpeername>(socket);
}

/// Linux hands what the network knows of a connection on to accept (accept(2), "Error handling").
bool accept_error_is_peers(int error) {
  for (const int known : {ECONNABORTED, EINTR, EPROTO, ENETDOWN, ENOPROTOOPT, EHOSTDOWN, ENONET, EHOSTUNREACH,
                          EOPNOTSUPP, ENETUNREACH, EPERM}) {
    if (error == known) return true;
  }
  return false;
}

}  // namespace tarvex::server
