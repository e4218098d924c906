#pragma once

#include <string>

namespace tarvex::server {

/// Loads certificate chain and key as a TLS server does. \return what is wrong with them; empty when they fit.
[[nodiscard]] std::string tls_files_error(const std::string& certificate, const std::string& key);

}  // namespace tarvex::server
