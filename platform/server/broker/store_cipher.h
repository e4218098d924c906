#pragma once

#include "base/secret.h"

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace tarvex::server {

/// Seals what lies on the disk: AES-256-GCM with a key that HKDF-SHA256 (RFC 5869) makes of the key file's bytes, and a
/// random nonce for each record.
class store_cipher {
 public:
  static constexpr std::size_t KEY_ID_BYTES = 8;
  static constexpr std::size_t KEY_BYTES_MIN = 32;
  using key_id = std::array<unsigned char, KEY_ID_BYTES>;

  /// \param key  32 bytes or more
  /// \return null when OpenSSL fails.
  [[nodiscard]] static std::shared_ptr<const store_cipher> make(std::string_view key);

  /// Tells one key from another, and says nothing of it.
  [[nodiscard]] const key_id& id() const { return id_; }

  /// \param bound  is no secret, but has to be the same to open it again
  /// \return nonce, ciphertext and tag; empty when OpenSSL fails.
  [[nodiscard]] std::string seal(std::string_view plain, std::string_view bound) const;
  /// \return nothing when it was sealed with another key, for something else, or was changed since.
  [[nodiscard]] std::optional<secret> open(std::string_view sealed, std::string_view bound) const;

 private:
  secret key_;
  key_id id_{};
};

}  // namespace tarvex::server
