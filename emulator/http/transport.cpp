#include "http/transport.h"

#include <openssl/ssl.h>
#include <poll.h>
#include <sys/sendfile.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <vector>

#include "base/handle.h"

namespace tarvex::emulator {
namespace {

constexpr std::size_t TLS_FILE_BUFFER_BYTES = 256UL * 1024;
constexpr std::int64_t SENDFILE_MAX_BYTES = 1 << 30;

/// False when the peer closes within that time. A half-closed peer (it sent all it had) counts as gone, too.
bool pause_on(int socket, std::int64_t milliseconds) {
  using clock = std::chrono::steady_clock;
  const auto end = clock::now() + std::chrono::milliseconds(milliseconds);
  for (;;) {
    const auto rest = std::chrono::ceil<std::chrono::milliseconds>(end - clock::now()).count();
    if (milliseconds >= 0 && rest <= 0) return true;
    pollfd watched{socket, POLLRDHUP, 0};
    const int ready =
        ::poll(&watched, 1, milliseconds < 0 ? -1 : static_cast<int>(std::min<std::int64_t>(rest, 60000)));
    if (ready > 0) return false;
    if (ready < 0 && errno != EINTR) return false;
  }
}

class plain final : public transport {
 public:
  explicit plain(descriptor socket) : socket_(std::move(socket)) {}

  std::size_t read(std::span<char> out) override {
    ssize_t got = 0;
    do {
      got = ::recv(socket_.get(), out.data(), out.size(), 0);
    } while (got < 0 && errno == EINTR);
    return got > 0 ? static_cast<std::size_t>(got) : 0;
  }

  bool write(std::string_view bytes, bool more) override {
    while (!bytes.empty()) {
      const ssize_t sent = ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | (more ? MSG_MORE : 0));
      if (sent < 0 && errno == EINTR) continue;
      if (sent <= 0) return false;
      bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
  }

  bool send_file(int file, std::int64_t offset, std::int64_t length) override {
    off_t at = offset;
    while (length > 0) {
      const auto step = static_cast<std::size_t>(std::min(length, SENDFILE_MAX_BYTES));
      const ssize_t sent = ::sendfile(socket_.get(), file, &at, step);
      if (sent < 0 && errno == EINTR) continue;
      if (sent <= 0) return false;
      length -= sent;
    }
    return true;
  }

  bool pause(std::int64_t milliseconds) override { return pause_on(socket_.get(), milliseconds); }

 private:
  descriptor socket_;
};

using ssl_ptr = std::unique_ptr<SSL, handle_releaser<SSL_free>>;

class tls final : public transport {
 public:
  tls(descriptor socket, ssl_ptr session) : socket_(std::move(socket)), session_(std::move(session)) {}

  ~tls() override { SSL_shutdown(session_.get()); }

  std::size_t read(std::span<char> out) override {
    std::size_t got = 0;
    return SSL_read_ex(session_.get(), out.data(), out.size(), &got) == 1 ? got : 0;
  }

  bool write(std::string_view bytes, bool /*more*/) override {
    std::size_t sent = 0;
    return bytes.empty() || SSL_write_ex(session_.get(), bytes.data(), bytes.size(), &sent) == 1;
  }

  bool send_file(int file, std::int64_t offset, std::int64_t length) override {
    std::vector<char> buffer(TLS_FILE_BUFFER_BYTES);
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

  bool pause(std::int64_t milliseconds) override { return pause_on(socket_.get(), milliseconds); }

 private:
  descriptor socket_;
  ssl_ptr session_;
};

class identity final : public tls_identity {
 public:
  identity(const std::string& certificate, const std::string& key) : context_(SSL_CTX_new(TLS_server_method())) {
    if (!context_) throw std::runtime_error("OpenSSL gives no TLS context");
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
    return std::make_unique<tls>(std::move(socket), std::move(session));
  }

 private:
  std::unique_ptr<SSL_CTX, handle_releaser<SSL_CTX_free>> context_;
};

}  // namespace

std::unique_ptr<transport> transport_plain(descriptor socket) {
  return std::make_unique<plain>(std::move(socket));
}

std::unique_ptr<tls_identity> tls_identity_load(const std::string& certificate, const std::string& key) {
  return std::make_unique<identity>(certificate, key);
}

}  // namespace tarvex::emulator
