#include "tls_fixture.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace tarvex::server::test {

void tls_files_make(const std::string& folder) {
  const std::string make =
      "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj /CN=localhost -days 2 -keyout " +
      folder + "/key.pem -out " + folder + "/certificate.pem 2>/dev/null";
  ASSERT_EQ(std::system(make.c_str()), 0);
}

tls_client::tls_client(int socket, int version, std::function<bool()> turn)
    : context_(SSL_CTX_new(TLS_client_method())), turn_(std::move(turn)) {
  SSL_CTX_set_min_proto_version(context_.get(), version);
  SSL_CTX_set_max_proto_version(context_.get(), version);
  connection_.reset(SSL_new(context_.get()));
  SSL_set_fd(connection_.get(), socket);
}

bool tls_client::go_on(const std::function<int()>& call) {
  while (true) {
    const int outcome = call();
    if (outcome > 0) return true;
    ended_ = SSL_get_error(connection_.get(), outcome);
    if ((ended_ != SSL_ERROR_WANT_READ && ended_ != SSL_ERROR_WANT_WRITE) || !turn_()) return false;
  }
}

bool tls_client::handshake() {
  return go_on([this] { return SSL_connect(connection_.get()); });
}

bool tls_client::write(std::string_view bytes) {
  std::size_t written = 0;
  return bytes.empty() || go_on([&] { return SSL_write_ex(connection_.get(), bytes.data(), bytes.size(), &written); });
}

std::string tls_client::read_all() {
  std::string all;
  char piece[65536];
  std::size_t bytes = 0;
  while (go_on([&] { return SSL_read_ex(connection_.get(), piece, sizeof piece, &bytes); })) all.append(piece, bytes);
  return all;
}

void tls_client::close_notify() {
  SSL_shutdown(connection_.get());
}

}  // namespace tarvex::server::test
