#pragma once

#include "config/configuration.h"

#include <openssl/types.h>

#include <string>

namespace tarvex::server {

/// Loads into `context` what [tls] names: certificate and chain, private key, the authorities of clients, ciphers.
/// Nothing of the files' text stays in memory. Asks nobody for a password: an encrypted key is an error.
/// \return what is wrong; empty when all of it can be used.
[[nodiscard]] std::string tls_files_load(const configuration& config, SSL_CTX* context);

/// What would be wrong; empty: nothing.
[[nodiscard]] std::string tls_files_error(const configuration& config);

}  // namespace tarvex::server
