#pragma once

#include "config/configuration.h"

#include <openssl/types.h>

#include <ctime>
#include <memory>
#include <string>

namespace tarvex::server {

/// Who the server is to its clients under TLS, and what it accepts from them: certificate, private key, authorities,
/// versions and ciphers. Never changed once made, so that sessions may keep theirs while another takes its place.
struct tls_identity {
  std::shared_ptr<SSL_CTX> context;
  std::string certificate_file;
  std::time_t valid_until = 0;  ///< of the certificate of the chain that ends first
};

/// An identity, or none and why not; neither when the configuration has no [tls].
struct tls_identity_answer {
  std::shared_ptr<const tls_identity> identity;
  std::string error;
};

/// Reads the files that [tls] names, as the user that the process runs as by now. May be called again for files that
/// have changed. Any thread.
[[nodiscard]] tls_identity_answer tls_identity_load(const configuration& config);

/// Logs how long the certificate is valid: as a warning when that is under 14 days or over, else only when
/// `in_any_case`.
void tls_identity_log_expiry(const tls_identity& identity, bool in_any_case);

}  // namespace tarvex::server
