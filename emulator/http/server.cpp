#include "http/server.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <list>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "base/handle.h"
#include "http/connection.h"

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

descriptor listen_on(const std::string& address) {
  const auto [host, port] = split_address(address);
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | AI_PASSIVE;
  addrinfo* found = nullptr;
  if (const int error = getaddrinfo(host.c_str(), port.c_str(), &hints, &found); error != 0) {
    throw std::runtime_error("cannot listen on " + address + ": " + gai_strerror(error) + " (give a numeric address)");
  }
  const std::unique_ptr<addrinfo, handle_releaser<freeaddrinfo>> list(found);
  descriptor socket(::socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const int on = 1;
  if (!socket || ::setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
      ::bind(socket.get(), found->ai_addr, found->ai_addrlen) != 0 || ::listen(socket.get(), SOMAXCONN) != 0) {
    throw std::runtime_error("cannot listen on " + address + ": " + std::strerror(errno));
  }
  return socket;
}

std::string bound_address(int socket) {
  sockaddr_storage address{};
  socklen_t length = sizeof address;
  char host[NI_MAXHOST] = "";
  char port[NI_MAXSERV] = "";
  if (::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
      getnameinfo(reinterpret_cast<sockaddr*>(&address), length, host, sizeof host, port, sizeof port,
                  NI_NUMERICHOST | NI_NUMERICSERV) != 0) {
    throw std::runtime_error("cannot tell the address that was taken");
  }
  const std::string name = address.ss_family == AF_INET6 ? "[" + std::string(host) + "]" : host;
  return name + ":" + port;
}

bool is_loopback(int socket) {
  sockaddr_storage peer{};
  socklen_t length = sizeof peer;
  if (::getpeername(socket, reinterpret_cast<sockaddr*>(&peer), &length) != 0) return false;
  if (peer.ss_family == AF_INET) {
    return (ntohl(reinterpret_cast<const sockaddr_in&>(peer).sin_addr.s_addr) >> 24) == 127;
  }
  return peer.ss_family == AF_INET6 && IN6_IS_ADDR_LOOPBACK(&reinterpret_cast<const sockaddr_in6&>(peer).sin6_addr);
}

void set_options(int socket, std::int64_t idle_timeout_s) {
  const int on = 1;
  const timeval idle{idle_timeout_s, 0};
  (void)::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);  // slower without, not wrong
  (void)::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &idle, sizeof idle);
  (void)::setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &idle, sizeof idle);
}

}  // namespace

class http_server::state {
 public:
  state(server_options options, request_handler handler)
      : options_(std::move(options)), handler_(std::move(handler)), listener_(listen_on(options_.address)) {}

  [[nodiscard]] std::string address() const { return bound_address(listener_.get()); }

  void run() {
    while (!stopping_) {
      descriptor socket(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
      if (stopping_) break;
      if (!socket) {
        if (errno == EMFILE || errno == ENFILE) std::this_thread::sleep_for(std::chrono::milliseconds(10));
        continue;
      }
      set_options(socket.get(), options_.idle_timeout_s);
      start(std::move(socket));
    }
    finish();
  }

  void stop() {
    stopping_ = true;
    ::shutdown(listener_.get(), SHUT_RDWR);
  }

 private:
  struct connection {
    int socket = -1;  // owned by the thread's transport; valid while not `done`
    bool done = false;
    std::thread thread;
  };

  void start(descriptor socket) {
    const std::lock_guard lock(mutex_);
    for (auto old = connections_.begin(); old != connections_.end();) {
      if (old->done) old->thread.join();
      old = old->done ? connections_.erase(old) : std::next(old);
    }
    connection& entry = connections_.emplace_back();
    entry.socket = socket.get();
    entry.thread = std::thread([this, &entry, held = std::move(socket)]() mutable { serve(entry, std::move(held)); });
  }

  void serve(connection& entry, descriptor socket) {
    std::unique_ptr<transport> client;
    const connection_facts facts{options_.identity != nullptr, is_loopback(socket.get())};
    try {
      client = options_.identity ? options_.identity->accept(std::move(socket)) : transport_plain(std::move(socket));
      if (client) connection_serve(*client, facts, handler_);
    } catch (const connection_lost&) {
    } catch (const std::exception& error) {
      std::fprintf(stderr, "connection ended: %s\n", error.what());
    }
    // Marked done before the socket is closed, so that `finish` never touches a number that is someone else's.
    const std::lock_guard lock(mutex_);
    entry.done = true;
    client.reset();
  }

  void finish() {
    {
      const std::lock_guard lock(mutex_);
      for (const connection& entry : connections_) {
        if (!entry.done) ::shutdown(entry.socket, SHUT_RDWR);
      }
    }
    for (connection& entry : connections_) entry.thread.join();
    connections_.clear();
  }

  server_options options_;
  request_handler handler_;
  descriptor listener_;
  std::atomic<bool> stopping_ = false;
  std::mutex mutex_;  // guards connections_ and the flags in it
  std::list<connection> connections_;
};

http_server::http_server(server_options options, request_handler handler)
    : state_(std::make_unique<state>(std::move(options), std::move(handler))) {}
http_server::~http_server() = default;

std::string http_server::address() const {
  return state_->address();
}
void http_server::run() {
  state_->run();
}
void http_server::stop() {
  state_->stop();
}

}  // namespace tarvex::emulator
