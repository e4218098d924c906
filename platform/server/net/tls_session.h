#pragma once

#include "net/tls_engine.h"
#include "net/tls_identity.h"
#include "net/tls_tickets.h"

#include <memory>

namespace tarvex::server {

/// TLS as one session uses it: one identity for all its connections, and tickets that nobody else's open. The control
/// connection issues them, and they resume data connections, which issue none: clients that close without having read
/// them would reset the connection, and cut an upload short.
class tls_session {
 public:
  explicit tls_session(std::shared_ptr<const tls_identity> identity);
  tls_session(const tls_session&) = delete;
  tls_session& operator=(const tls_session&) = delete;

  /// Engines for the server's side. They need this object for as long as their handshake takes. Throw std::bad_alloc.
  std::unique_ptr<tls_engine> control_engine() const;
  std::unique_ptr<tls_engine> data_engine() const;

 private:
  std::unique_ptr<tls_engine> make(const tls_ticket_role& role, tls_engine::kind use) const;

  const std::shared_ptr<const tls_identity> identity_;
  const tls_ticket_key key_;
  tls_remembered remembered_;
  const tls_ticket_role control_{&key_, &remembered_, true}, data_{&key_, &remembered_, false};
};

}  // namespace tarvex::server
