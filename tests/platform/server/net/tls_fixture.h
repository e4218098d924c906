#pragma once

#include "tarvex_common.hpp"

#include <openssl/ssl.h>

#include <functional>
#include <string>
#include <string_view>

namespace tarvex::server::test {

/// Makes `certificate.pem`, of localhost and by itself, and `key.pem` in a folder.
void tls_files_make(const std::string& folder);

/// A client's end of a TLS connection, over a socket that does not block.
class tls_client {
 public:
  /// \param socket   borrowed
  /// \param version  TLS1_2_VERSION or TLS1_3_VERSION
  /// \param turn     lets the server's end go on; false: no more patience
  tls_client(int socket, int version, std::function<bool()> turn);

  bool handshake();
  bool write(std::string_view bytes);
  /// All up to the server's end.
  std::string read_all();
  /// Whether that was a close_notify.
  bool ended_in_order() const { return ended_ == SSL_ERROR_ZERO_RETURN; }
  void close_notify();

 private:
  bool go_on(const std::function<int()>& call);

  owner<SSL_CTX, SSL_CTX_free> context_;
  owner<SSL, SSL_free> connection_;
  std::function<bool()> turn_;
  int ended_ = 0;
};

}  // namespace tarvex::server::test
