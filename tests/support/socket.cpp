#include "support/socket.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace {

constexpr int PATIENCE_S = 20;

sockaddr_storage address_of(const std::string& host, std::uint16_t port, bool ipv6) {
  sockaddr_storage address{};
  if (ipv6) {
    auto* six = reinterpret_cast<sockaddr_in6*>(&address);
    six->sin6_family = AF_INET6;
    six->sin6_port = htons(port);
    six->sin6_addr = in6addr_loopback;
  } else {
    auto* four = reinterpret_cast<sockaddr_in*>(&address);
    four->sin_family = AF_INET;
    four->sin_port = htons(port);
    inet_pton(AF_INET, host.empty() ? "127.0.0.1" : host.c_str(), &four->sin_addr);
  }
  return address;
}

int socket_bound(const std::string& host, bool ipv6) {
  const int descriptor = socket(ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_storage address = address_of(host, 0, ipv6);
  EXPECT_EQ(bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0) << strerror(errno);
  return descriptor;
}

}  // namespace

loopback_socket::loopback_socket(int descriptor) : descriptor_(descriptor) {
  const timeval patience{PATIENCE_S, 0};
  setsockopt(descriptor_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
  setsockopt(descriptor_, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof(patience));
}

loopback_socket::~loopback_socket() {
  close();
}
loopback_socket::loopback_socket(loopback_socket&& other) noexcept : descriptor_(other.release()) {}

loopback_socket& loopback_socket::operator=(loopback_socket&& other) noexcept {
  std::swap(descriptor_, other.descriptor_);
  return *this;
}

loopback_socket loopback_socket::listener(bool ipv6) {
  loopback_socket made(socket_bound({}, ipv6));
  EXPECT_EQ(listen(made.descriptor_, 16), 0);
  return made;
}

loopback_socket loopback_socket::connect(std::uint16_t port, const std::string& from, bool ipv6) {
  loopback_socket made(socket_bound(from, ipv6));
  const sockaddr_storage address = address_of({}, port, ipv6);
  if (::connect(made.descriptor_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) made.close();
  return made;
}

loopback_socket loopback_socket::accept() const {
  return loopback_socket(::accept4(descriptor_, nullptr, nullptr, SOCK_CLOEXEC));
}

std::uint16_t loopback_socket::port() const {
  sockaddr_in6 address{};
  socklen_t length = sizeof(address);
  getsockname(descriptor_, reinterpret_cast<sockaddr*>(&address), &length);
  return ntohs(address.sin6_port);  // at the same place for IPv4
}

bool loopback_socket::write(std::string_view bytes) const {
  while (!bytes.empty()) {
    const ssize_t sent = ::send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

std::string loopback_socket::read(std::size_t most) const {
  std::string bytes(most, '\0');
  const ssize_t count = ::recv(descriptor_, bytes.data(), bytes.size(), 0);
  EXPECT_FALSE(count < 0 && errno == EAGAIN) << "nothing came for " << PATIENCE_S << " s";
  bytes.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
  return bytes;
}

std::string loopback_socket::read_all() const {
  std::string all;
  for (std::string more = read(); !more.empty(); more = read()) all += more;
  return all;
}

std::string loopback_socket::read_line() const {
  std::string line;
  for (std::string byte = read(1); !byte.empty() && byte != "\n"; byte = read(1)) line += byte;
  return line;
}

void loopback_socket::half_close() const {
  ::shutdown(descriptor_, SHUT_WR);
}

void loopback_socket::reset() {
  const linger at_once{1, 0};
  setsockopt(descriptor_, SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once));
  close();
}

void loopback_socket::close() {
  if (descriptor_ >= 0) ::close(std::exchange(descriptor_, -1));
}

int loopback_socket::release() {
  return std::exchange(descriptor_, -1);
}
