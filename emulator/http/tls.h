#pragma once

#include "http/transport.h"

#include <memory>
#include <string>

namespace tarvex::emulator {

/// The server's certificate; null without TLS.
class tls_identity {
 public:
  virtual ~tls_identity() = default;

  /// Shakes hands on a socket; null when that fails.
  [[nodiscard]] virtual std::unique_ptr<transport> accept(descriptor socket) const = 0;
};

/// Reads a certificate chain and its key, both PEM. Throws std::runtime_error that names the file.
[[nodiscard]] std::unique_ptr<tls_identity> tls_identity_load(const std::string& certificate, const std::string& key);

}  // namespace tarvex::emulator
