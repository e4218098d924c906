#include "http/tls.h"

#include <openssl/ssl.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <vector>

namespace tarvex::emulator {
namespace {

constexpr std::size_t FILE_BUFFER_BYTES = 256UL * 1024;

using ssl_ptr = owner<SSL, SSL_free>;

class tls_transport final : public transport {
 public:
  tls_transport(descriptor socket, ssl_ptr session) : socket_(std::move(socket)), session_(std::move(session)) {}

  // Says "no more" without waiting for the client's own: it may have gone without a word.
  ~tls_transport() override { SSL_shutdown(session_.get()); }

  std::size_t read(std::span<char> out) override {
    std::size_t got = 0;
    return SSL_read_ex(session_.get(), out.data(), out.size(), &got) == 1 ? got : 0;
  }

  bool write(std::string_view bytes, bool /*more*/) override {
    std::size_t sent = 0;
    return bytes.empty() || SSL_write_ex(session_.get(), bytes.data(), bytes.size(), &sent) == 1;
  }

  // Through a buffer: sendfile knows nothing of encryption.
  bool send_file(int file, std::int64_t offset, std::int64_t length) override {
    std::vector<char> buffer(std::min(FILE_BUFFER_BYTES, static_cast<std::size_t>(length)));
    while (length > 0) {
      const auto step = std::min(static_cast<std::size_t>(length), buffer.size());
      const ssize_t got = ::pread(file, buffer.data(), step, offset);
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0 || !write(std::string_view(buffer.data(), static_cast<std::size_t>(got)), true)) return false;
      offset += got;
      length -= got;
    }
    return true;
  }

  bool pause(std::int64_t milliseconds) override { return transport_pause(socket_.get(), milliseconds); }
  void limit_backlog(int bytes) override { transport_limit_backlog(socket_.get(), bytes); }

 private:
  descriptor socket_;
  ssl_ptr session_;
};

class identity final : public tls_identity {
 public:
  identity(const std::string& certificate, const std::string& key) : context_(SSL_CTX_new(TLS_server_method())) {
    if (!context_) throw std::runtime_error("OpenSSL gives no TLS context");
    // Box takes nothing older either.
    SSL_CTX_set_min_proto_version(context_.get(), TLS1_2_VERSION);
    if (SSL_CTX_use_certificate_chain_file(context_.get(), certificate.c_str()) != 1) {
      throw std::runtime_error("cannot read a PEM certificate from " + certificate);
    }
    if (SSL_CTX_use_PrivateKey_file(context_.get(), key.c_str(), SSL_FILETYPE_PEM) != 1) {
      throw std::runtime_error("cannot read the certificate's PEM key from " + key);
    }
  }

  std::unique_ptr<transport> accept(descriptor socket) const override {
    ssl_ptr session(SSL_new(context_.get()));
    if (!session || SSL_set_fd(session.get(), socket.get()) != 1 || SSL_accept(session.get()) != 1) return nullptr;
    return std::make_unique<tls_transport>(std::move(socket), std::move(session));
  }

 private:
  owner<SSL_CTX, SSL_CTX_free> context_;
};

}  // namespace

std::unique_ptr<tls_identity> tls_identity_load(const std::string& certificate, const std::string& key) {
  return std::make_unique<identity>(certificate, key);
}

}  // namespace tarvex::emulator
