#include "config/tls_files.h"

#include "tarvex_common.hpp"

#include <openssl/err.h>
#include <openssl/ssl.h>

namespace tarvex::server {

namespace {

/// OpenSSL keeps a list of errors per thread: the first is the cause, the rest is emptied for the next caller.
std::string openssl_error(const std::string& what) {
  const unsigned long code = ERR_get_error();
  ERR_clear_error();
  const char* const reason = ERR_reason_error_string(code);
  return what + ": " + (reason == nullptr ? "not usable" : reason);
}

}  // namespace

std::string tls_files_error(const std::string& certificate, const std::string& key) {
  ERR_clear_error();
  const owner<SSL_CTX, SSL_CTX_free> context(SSL_CTX_new(TLS_server_method()));
  if (context == nullptr) return openssl_error("TLS cannot be set up");
  if (SSL_CTX_use_certificate_chain_file(context.get(), certificate.c_str()) != 1) {
    return openssl_error("no certificate in PEM form can be read from \"" + certificate + "\"");
  }
  if (SSL_CTX_use_PrivateKey_file(context.get(), key.c_str(), SSL_FILETYPE_PEM) != 1) {
    return openssl_error("no private key in PEM form that fits the certificate can be read from \"" + key + "\"");
  }
  return {};
}

}  // namespace tarvex::server
