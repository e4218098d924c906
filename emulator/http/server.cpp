#include "http/server.h"

#include "http/connection.h"
#include "http/listen_socket.h"

#include <sys/socket.h>

#include <atomic>
#include <cstdio>
#include <list>
#include <mutex>
#include <system_error>
#include <thread>

namespace tarvex::emulator {

class server::state {
 public:
  state(server_options options, request_handler handler)
      : options_(std::move(options)), handler_(std::move(handler)), listener_(listen_socket_open(options_.address)) {}

  [[nodiscard]] std::string address() const { return listen_socket_address(listener_.get()); }

  void run() {
    while (!stopping_) {
      descriptor socket = listen_socket_accept(listener_.get(), options_.idle_timeout_s);
      if (!stopping_ && socket) start(std::move(socket));
    }
    finish();
  }

  void stop() {
    stopping_ = true;
    // Wakes the thread that waits in accept; closing the descriptor would not.
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
    // A thread cannot join itself: those that have ended are joined when the next connection comes.
    for (auto old = connections_.begin(); old != connections_.end();) {
      if (old->done) old->thread.join();
      old = old->done ? connections_.erase(old) : std::next(old);
    }
    connection& entry = connections_.emplace_back();
    entry.socket = socket.get();
    try {
      entry.thread = std::thread([this, &entry, held = std::move(socket)]() mutable { serve(entry, std::move(held)); });
    } catch (const std::system_error& error) {
      connections_.pop_back();
      std::fprintf(stderr, "a connection was refused: %s\n", error.what());
    }
  }

  void serve(connection& entry, descriptor socket) {
    std::unique_ptr<transport> client;
    const connection_facts facts{options_.identity != nullptr, peer_is_loopback(socket.get())};
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
    // Outside the lock: each thread takes it on its way out.
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

server::server(server_options options, request_handler handler)
    : state_(std::make_unique<state>(std::move(options), std::move(handler))) {}
server::~server() = default;

std::string server::address() const {
  return state_->address();
}
void server::run() {
  state_->run();
}
void server::stop() {
  state_->stop();
}

}  // namespace tarvex::emulator
