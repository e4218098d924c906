#include "http/listen_socket.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <thread>

namespace tarvex::emulator {
namespace {

struct host_and_port {
  std::string host;
  std::string port;
};

host_and_port split_address(const std::string& address) {
  const auto colon = address.rfind(':');
  if (colon == std::string::npos) throw std::runtime_error("'" + address + "' is not of the form HOST:PORT");
  std::string host = address.substr(0, colon);
  if (host.starts_with('[') && host.ends_with(']')) host = host.substr(1, host.size() - 2);
  return {host, address.substr(colon + 1)};
}

void set_options(int socket, std::int64_t idle_timeout_s) {
  const int on = 1;
  // Blocking calls with a time limit: a thread that waits for a dead client must end some day.
  const timeval idle{idle_timeout_s, 0};
  (void)::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);  // slower without, not wrong
  (void)::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &idle, sizeof idle);
  (void)::setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &idle, sizeof idle);
}

}  // namespace

descriptor listen_socket_open(const std::string& address) {
  const auto [host, port] = split_address(address);
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  // Numeric alone: a name could stand for several addresses, and a look-up could take its time.
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | AI_PASSIVE;
  addrinfo* found = nullptr;
  if (const int error = getaddrinfo(host.c_str(), port.c_str(), &hints, &found); error != 0) {
    throw std::runtime_error("cannot listen on " + address + ": " + gai_strerror(error) + " (give a numeric address)");
  }
  const owner<addrinfo, freeaddrinfo> list(found);
  descriptor socket(::socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const int on = 1;
  if (!socket || ::setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
      ::bind(socket.get(), found->ai_addr, found->ai_addrlen) != 0 || ::listen(socket.get(), SOMAXCONN) != 0) {
    throw std::runtime_error("cannot listen on " + address + ": " + std::strerror(errno));
  }
  return socket;
}

std::string listen_socket_address(int socket) {
  sockaddr_storage address{};
  socklen_t length = sizeof address;
  char host[NI_MAXHOST] = "";
  char port[NI_MAXSERV] = "";
  if (::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
      getnameinfo(reinterpret_cast<sockaddr*>(&address), length, host, sizeof host, port, sizeof port,
                  NI_NUMERICHOST | NI_NUMERICSERV) != 0) {
    throw std::runtime_error("cannot tell the address that was taken");
  }
  // The brackets keep the colons of an IPv6 address apart from the one before the port.
  const std::string name = address.ss_family == AF_INET6 ? "[" + std::string(host) + "]" : host;
  return name + ":" + port;
}

// Asked of the socket and not of a header, which anybody can write.
bool peer_is_loopback(int socket) {
  sockaddr_storage peer{};
  socklen_t length = sizeof peer;
  if (::getpeername(socket, reinterpret_cast<sockaddr*>(&peer), &length) != 0) return false;
  if (peer.ss_family == AF_INET) {
    return (ntohl(reinterpret_cast<const sockaddr_in&>(peer).sin_addr.s_addr) >> 24) == 127;
  }
  return peer.ss_family == AF_INET6 && IN6_IS_ADDR_LOOPBACK(&reinterpret_cast<const sockaddr_in6&>(peer).sin6_addr);
}

descriptor listen_socket_accept(int socket, std::int64_t idle_timeout_s) {
  descriptor connection(::accept4(socket, nullptr, nullptr, SOCK_CLOEXEC));
  if (connection) {
    set_options(connection.get(), idle_timeout_s);
  } else if (errno == EMFILE || errno == ENFILE) {
    // The connection stays in the queue, so accept would fail again at once, and for as long as nobody closes a file.
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return connection;
}

}  // namespace tarvex::emulator
