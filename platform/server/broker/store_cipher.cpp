#include "broker/store_cipher.h"

#include "tarvex_common.hpp"

#include <openssl/evp.h>
#include <openssl/kdf.h>
#include <openssl/rand.h>

#include <algorithm>
#include <utility>

namespace tarvex::server {

namespace {

using cipher_context = owner<EVP_CIPHER_CTX, EVP_CIPHER_CTX_free>;
using key_context = owner<EVP_PKEY_CTX, EVP_PKEY_CTX_free>;

constexpr std::size_t AES_KEY_BYTES = 32;
constexpr std::size_t NONCE_BYTES = 12;
constexpr std::size_t TAG_BYTES = 16;
constexpr std::string_view KEY_PURPOSE = "tarvex broker store, AES-256-GCM";
constexpr std::string_view ID_PURPOSE = "tarvex broker store, key id";

const unsigned char* bytes_of(std::string_view text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}
unsigned char* bytes_of(std::string& text) {
  return reinterpret_cast<unsigned char*>(text.data());
}

/// \return `length` bytes; empty when OpenSSL fails.
std::string derive(std::string_view key, std::string_view purpose, std::size_t length) {
  const key_context context(EVP_PKEY_CTX_new_id(EVP_PKEY_HKDF, nullptr));
  std::string out(length, '\0');
  const bool made =
      context && EVP_PKEY_derive_init(context.get()) == 1 &&
      EVP_PKEY_CTX_set_hkdf_md(context.get(), EVP_sha256()) == 1 &&
      EVP_PKEY_CTX_set1_hkdf_key(context.get(), bytes_of(key), static_cast<int>(key.size())) == 1 &&
      EVP_PKEY_CTX_add1_hkdf_info(context.get(), bytes_of(purpose), static_cast<int>(purpose.size())) == 1 &&
      EVP_PKEY_derive(context.get(), bytes_of(out), &length) == 1;
  return made ? out : std::string();
}

}  // namespace

std::shared_ptr<const store_cipher> store_cipher::make(std::string_view key) {
  const auto made = std::make_shared<store_cipher>();
  made->key_ = secret(derive(key, KEY_PURPOSE, AES_KEY_BYTES));
  const std::string id = derive(key, ID_PURPOSE, KEY_ID_BYTES);
  if (made->key_.text().empty() || id.empty()) return nullptr;
  std::copy(id.begin(), id.end(), made->id_.begin());
  return made;
}

std::string store_cipher::seal(std::string_view plain, std::string_view bound) const {
  std::string out(NONCE_BYTES + plain.size() + TAG_BYTES, '\0');
  unsigned char* const nonce = bytes_of(out);
  unsigned char* const text = nonce + NONCE_BYTES;
  const cipher_context context(EVP_CIPHER_CTX_new());
  int count = 0;
  const bool sealed =
      context && RAND_bytes(nonce, NONCE_BYTES) == 1 &&
      EVP_EncryptInit_ex(context.get(), EVP_aes_256_gcm(), nullptr, bytes_of(key_.text()), nonce) == 1 &&
      EVP_EncryptUpdate(context.get(), nullptr, &count, bytes_of(bound), static_cast<int>(bound.size())) == 1 &&
      EVP_EncryptUpdate(context.get(), text, &count, bytes_of(plain), static_cast<int>(plain.size())) == 1 &&
      EVP_EncryptFinal_ex(context.get(), text + count, &count) == 1 &&
      EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_GET_TAG, TAG_BYTES, text + plain.size()) == 1;
  return sealed ? out : std::string();
}

std::optional<secret> store_cipher::open(std::string_view sealed, std::string_view bound) const {
  if (sealed.size() < NONCE_BYTES + TAG_BYTES) return std::nullopt;
  const std::string_view text = sealed.substr(NONCE_BYTES, sealed.size() - NONCE_BYTES - TAG_BYTES);
  std::string tag(sealed.substr(sealed.size() - TAG_BYTES));
  std::string plain(text.size(), '\0');
  const cipher_context context(EVP_CIPHER_CTX_new());
  int count = 0;
  const bool opened =
      context &&
      EVP_DecryptInit_ex(context.get(), EVP_aes_256_gcm(), nullptr, bytes_of(key_.text()), bytes_of(sealed)) == 1 &&
      EVP_DecryptUpdate(context.get(), nullptr, &count, bytes_of(bound), static_cast<int>(bound.size())) == 1 &&
      EVP_DecryptUpdate(context.get(), bytes_of(plain), &count, bytes_of(text), static_cast<int>(text.size())) == 1 &&
      EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_SET_TAG, TAG_BYTES, tag.data()) == 1 &&
      EVP_DecryptFinal_ex(context.get(), bytes_of(plain) + count, &count) == 1;
  secret out(std::move(plain));
  if (!opened) return std::nullopt;
  return out;
}

}  // namespace tarvex::server
