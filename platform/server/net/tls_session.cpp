#include "net/tls_session.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <new>
#include <utility>

namespace tarvex::server {

tls_session::tls_session(std::shared_ptr<const tls_identity> identity) : identity_(std::move(identity)) {}

std::unique_ptr<tls_engine> tls_session::control_engine() const {
  return make(control_, tls_engine::kind::talk);
}

std::unique_ptr<tls_engine> tls_session::data_engine() const {
  return make(data_, tls_engine::kind::bulk);
}

std::unique_ptr<tls_engine> tls_session::make(const tls_ticket_role& role, tls_engine::kind use) const {
  owner<SSL, SSL_free> connection(SSL_new(identity_->context.get()));
  if (connection == nullptr || !tls_tickets_play(connection.get(), role)) {
    ERR_clear_error();
    throw std::bad_alloc();
  }
  return std::make_unique<tls_engine>(connection.release(), use);
}

}  // namespace tarvex::server
