#pragma once

#include "tarvex_common.hpp"

#include <openssl/evp.h>

#include <memory>
#include <string>
#include <string_view>

namespace tarvex::emulator {

/// A running SHA-1. Copying copies the state, so that a piece can be tried and taken back. Throws std::bad_alloc.
class sha1_digest {
 public:
  sha1_digest();
  sha1_digest(const sha1_digest& other);
  sha1_digest& operator=(const sha1_digest& other);
  sha1_digest(sha1_digest&&) noexcept = default;
  sha1_digest& operator=(sha1_digest&&) noexcept = default;

  void update(std::string_view bytes);

  /// The 20 bytes of all that was put in so far; more may follow.
  [[nodiscard]] std::string value() const;

 private:
  owner<EVP_MD_CTX, EVP_MD_CTX_free> context_;
};

/// SHA-1 of a text, 20 bytes; and SHA-256, 32 bytes.
[[nodiscard]] std::string sha1_of(std::string_view bytes);
[[nodiscard]] std::string sha256_of(std::string_view bytes);

/// HMAC-SHA-256 (RFC 2104), 32 bytes.
[[nodiscard]] std::string hmac_sha256_of(std::string_view key, std::string_view bytes);

}  // namespace tarvex::emulator
