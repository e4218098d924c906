#pragma once

#include <memory>
#include <string>
#include <string_view>

struct evp_pkey_st;  // OpenSSL's EVP_PKEY

namespace tarvex::emulator {

/// An RSA key that signatures are checked with; usable from all threads. Null: none.
using public_key = std::shared_ptr<evp_pkey_st>;

/// Reads "-----BEGIN PUBLIC KEY-----" (RFC 7468, 13). Returns an empty text, or what is wrong with it: Box takes RSA
/// keys of 2048 bits and more.
[[nodiscard]] std::string public_key_read(const std::string& pem, public_key& into);

/// Whether a signature (RSASSA-PKCS1-v1_5, RFC 8017, 8.2) over a message is of that key. `digest` is OpenSSL's name of
/// the hash, "SHA256".
[[nodiscard]] bool public_key_has_signed(const public_key& key, const char* digest, std::string_view message,
                                         std::string_view signature);

}  // namespace tarvex::emulator
