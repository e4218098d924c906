#pragma once

#include <openssl/types.h>

#include <string>
#include <vector>

namespace tarvex::server {

/// How a certificate is called where names of certificates are configured: "sha256:" with the digest of its DER in
/// lower-case hex, "subject:" with the whole subject by RFC 4514 (UTF-8 as it stands, and once more escaped).
using certificate_names = std::vector<std::string>;

/// \param certificate  borrowed; null: there is none, and no names. Empty also when memory is out.
[[nodiscard]] certificate_names certificate_names_of(const X509* certificate);

}  // namespace tarvex::server
