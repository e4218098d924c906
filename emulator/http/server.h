#pragma once

#include "http/message.h"
#include "http/tls.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace tarvex::emulator {

/// Answers one request; called on the connection's thread, by many threads at once. May throw connection_lost.
using request_handler = std::function<response(request&)>;

struct server_options {
  std::string address = {};  // "127.0.0.1:0", "[::1]:8080"
  std::int64_t idle_timeout_s = 300;
  std::unique_ptr<tls_identity> identity;  // null: plain HTTP
};

/// HTTP/1.1 with one thread for each connection.
class server {
 public:
  /// Binds and listens. Throws std::runtime_error that says what is wrong with the address.
  server(server_options options, request_handler handler);
  ~server();

  /// The address that was taken, as "HOST:PORT".
  [[nodiscard]] std::string address() const;

  /// Accepts until `stop`, then ends all connections and waits for their threads.
  void run();

  /// Makes `run` return; may be called from any thread.
  void stop();

 private:
  class state;
  std::unique_ptr<state> state_;
};

}  // namespace tarvex::emulator
