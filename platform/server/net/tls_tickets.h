#pragma once

#include "tarvex_common.hpp"

#include <openssl/ssl.h>

#include <array>

namespace tarvex::server {

/// The secret that seals the session tickets of one session's control connection, and that no other session knows: a
/// ticket from elsewhere opens nothing. Wiped when it goes.
struct tls_ticket_key {
  /// Makes one up. Throws std::bad_alloc when there is no randomness to be had.
  tls_ticket_key();
  ~tls_ticket_key();
  tls_ticket_key(const tls_ticket_key&) = delete;
  tls_ticket_key& operator=(const tls_ticket_key&) = delete;

  std::array<unsigned char, 16> name;
  std::array<unsigned char, 32> encryption;
  std::array<unsigned char, 32> authentication;
};

/// A session that a client without tickets names by its id; curl is one, with TLS 1.2.
using tls_remembered = owner<SSL_SESSION, SSL_SESSION_free>;

/// What a connection does with tickets and sessions.
struct tls_ticket_role {
  const tls_ticket_key* key = nullptr;
  tls_remembered* remembered = nullptr;
  bool issues = false;  ///< hands out tickets, and is remembered; else it takes them only
};

/// Makes the connections of a context ask for their role.
/// \return false when memory is out.
[[nodiscard]] bool tls_tickets_enable(SSL_CTX* context);

/// Gives a connection its role, which is borrowed until its handshake is over. One without a role has no tickets.
/// \return false when memory is out.
[[nodiscard]] bool tls_tickets_play(SSL* connection, const tls_ticket_role& role);

}  // namespace tarvex::server
