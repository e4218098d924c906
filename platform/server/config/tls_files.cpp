// The files are read and cut into blocks here, not by OpenSSL's functions that take a file's name: those leave the
// private key's text behind in buffers that were freed, and ask the terminal for passwords.
#include "config/tls_files.h"

#include "base/regular_file.h"
#include "base/secret.h"
#include "tarvex_common.hpp"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>

#include <string_view>
#include <vector>

namespace tarvex::server {

namespace {

/// TLS 1.2: forward secrecy and authenticated encryption only, as Mozilla's intermediate list has them. The ciphers of
/// TLS 1.3 are all good.
constexpr const char* DEFAULT_CIPHERS =
    "ECDHE-ECDSA-AES128-GCM-SHA256:ECDHE-RSA-AES128-GCM-SHA256:ECDHE-ECDSA-AES256-GCM-SHA384:"
    "ECDHE-RSA-AES256-GCM-SHA384:ECDHE-ECDSA-CHACHA20-POLY1305:ECDHE-RSA-CHACHA20-POLY1305:"
    "DHE-RSA-AES128-GCM-SHA256:DHE-RSA-AES256-GCM-SHA384:DHE-RSA-CHACHA20-POLY1305";

using certificate_ptr = owner<X509, X509_free>;

/// OpenSSL keeps a list of errors per thread: the first is the cause, the rest is emptied for the next caller.
std::string tls_file_error(const std::string& what) {
  const unsigned long code = ERR_get_error();
  ERR_clear_error();
  const char* const reason = ERR_reason_error_string(code);
  return what + ": " + (reason == nullptr ? "not usable" : reason);
}

/// One block of a file in PEM form (RFC 7468). Its memory is wiped when it goes.
struct pem_block {
  std::string name;
  bool encrypted = false;
  secret content;
};

void free_wiped(char* text) {
  OPENSSL_secure_free(text);
}

/// The next block; nothing at the end, or before what is no PEM.
bool next_block(BIO* from, pem_block& out) {
  char* name = nullptr;
  char* header = nullptr;
  unsigned char* bytes = nullptr;
  long length = 0;
  if (PEM_read_bio_ex(from, &name, &header, &bytes, &length, PEM_FLAG_SECURE) != 1) return false;
  const owner<char, free_wiped> name_owner(name), header_owner(header);
  const auto size = static_cast<std::size_t>(length);
  out.name = name;
  out.encrypted =
      std::string_view(header).find("ENCRYPTED") != std::string_view::npos || out.name.starts_with("ENCRYPTED");
  out.content = secret(std::string(reinterpret_cast<const char*>(bytes), size));
  OPENSSL_secure_clear_free(bytes, size);
  return true;
}

/// All blocks of a file. \return why it cannot be read; empty when it can.
std::string read_blocks(const std::string& file, std::vector<pem_block>& out) {
  std::string text;
  const auto failure = regular_file_read(file, file_trust::anyone, 1, text);
  const secret content(std::move(text));
  if (failure) return "\"" + file + "\" " + failure->text;
  const owner<BIO, BIO_free_all> from(BIO_new_mem_buf(content.text().data(), static_cast<int>(content.text().size())));
  if (from == nullptr) return "out of memory";
  pem_block block;
  while (next_block(from.get(), block)) out.push_back(std::move(block));
  ERR_clear_error();  // "no start line" is how the end is told
  return {};
}

/// The certificates of a file, in their order.
std::string read_certificate_file(const std::string& file, std::vector<certificate_ptr>& out) {
  std::vector<pem_block> blocks;
  std::string error = read_blocks(file, blocks);
  if (!error.empty()) return error;
  for (const pem_block& block : blocks) {
    if (block.name != PEM_STRING_X509 && block.name != PEM_STRING_X509_OLD) continue;
    const auto* bytes = reinterpret_cast<const unsigned char*>(block.content.text().data());
    out.emplace_back(d2i_X509(nullptr, &bytes, static_cast<long>(block.content.text().size())));
    if (out.back() == nullptr) return tls_file_error("a certificate in \"" + file + "\" cannot be read");
  }
  return out.empty() ? "no certificate in PEM form can be read from \"" + file + "\"" : "";
}

std::string load_certificate(const std::string& file, SSL_CTX* context) {
  std::vector<certificate_ptr> chain;
  std::string error = read_certificate_file(file, chain);
  if (!error.empty()) return error;
  if (SSL_CTX_use_certificate(context, chain.front().get()) != 1)
    return tls_file_error("the certificate in \"" + file + "\" cannot be used");
  for (std::size_t i = 1; i < chain.size(); ++i) {
    if (SSL_CTX_add1_chain_cert(context, chain[i].get()) != 1)
      return tls_file_error("the chain in \"" + file + "\" cannot be used");
  }
  return {};
}

std::string load_key(const std::string& file, SSL_CTX* context) {
  std::vector<pem_block> blocks;
  std::string error = read_blocks(file, blocks);
  if (!error.empty()) return error;
  for (const pem_block& block : blocks) {
    if (!block.name.ends_with("PRIVATE KEY")) continue;
    if (block.encrypted) return "the private key in \"" + file + "\" is encrypted; store it without a password";
    const auto* bytes = reinterpret_cast<const unsigned char*>(block.content.text().data());
    const owner<EVP_PKEY, EVP_PKEY_free> key(
        d2i_AutoPrivateKey(nullptr, &bytes, static_cast<long>(block.content.text().size())));
    if (key == nullptr) return tls_file_error("the private key in \"" + file + "\" cannot be read");
    if (SSL_CTX_use_PrivateKey(context, key.get()) != 1 || SSL_CTX_check_private_key(context) != 1)
      return tls_file_error("the private key in \"" + file + "\" does not fit the certificate");
    return {};
  }
  return "no private key in PEM form can be read from \"" + file + "\"";
}

/// Who may sign clients' certificates: no other authority of this machine counts.
std::string load_client_authorities(const std::string& file, SSL_CTX* context) {
  std::vector<certificate_ptr> authorities;
  std::string error = read_certificate_file(file, authorities);
  if (!error.empty()) return error;
  X509_STORE* const trusted = SSL_CTX_get_cert_store(context);  // borrowed
  for (const certificate_ptr& authority : authorities) {
    if (X509_STORE_add_cert(trusted, authority.get()) != 1 || SSL_CTX_add_client_CA(context, authority.get()) != 1)
      return tls_file_error("the authorities in \"" + file + "\" cannot be used");
  }
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
  return {};
}

}  // namespace

std::string tls_files_load(const configuration& config, SSL_CTX* context) {
  ERR_clear_error();
  const char* const ciphers = config.tls_ciphers.empty() ? DEFAULT_CIPHERS : config.tls_ciphers.c_str();
  if (SSL_CTX_set_cipher_list(context, ciphers) != 1)
    return tls_file_error("ciphers \"" + config.tls_ciphers + "\" name none that can be used");
  std::string error = load_certificate(config.tls_certificate, context);
  if (error.empty()) error = load_key(config.tls_key, context);
  if (error.empty() && !config.tls_client_ca.empty()) error = load_client_authorities(config.tls_client_ca, context);
  return error;
}

std::string tls_files_error(const configuration& config) {
  const owner<SSL_CTX, SSL_CTX_free> context(SSL_CTX_new(TLS_server_method()));
  return context == nullptr ? tls_file_error("TLS cannot be set up") : tls_files_load(config, context.get());
}

}  // namespace tarvex::server
