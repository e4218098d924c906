#pragma once

#include <boost/asio/awaitable.hpp>

#include <string>

namespace tarvex::server {

class data_socket;
class tls_session;

/// What a data connection has to fulfil (PROT, and what the configuration adds).
struct data_protection {
  tls_session* tls = nullptr;  ///< makes it private; borrowed; null: it stays plain
  bool must_resume = false;    ///< the control connection's session
  std::string certificate;     ///< one of the names of the certificate that it must show; empty: any, or none
};

/// Makes a connection that was just made what it has to be: for TLS, runs the handshake. The socket stays until then;
/// closing it ends the wait. I/O thread.
/// \return why it may not be used, as a sentence; empty when it may.
boost::asio::awaitable<std::string> data_protect(data_socket& fresh, data_protection wanted);

}  // namespace tarvex::server
