#include "base/digest.h"

#include <openssl/hmac.h>
#include <openssl/sha.h>

#include <new>
#include <stdexcept>

namespace tarvex::emulator {
namespace {

void check(int outcome) {
  if (outcome != 1) throw std::runtime_error("OpenSSL refused a digest");
}

/// OpenSSL tells the lack of memory by null alone.
EVP_MD_CTX* new_context() {
  EVP_MD_CTX* context = EVP_MD_CTX_new();
  if (context == nullptr) throw std::bad_alloc();
  return context;
}

}  // namespace

sha1_digest::sha1_digest() : context_(new_context()) {
  check(EVP_DigestInit_ex(context_.get(), EVP_sha1(), nullptr));
}

sha1_digest::sha1_digest(const sha1_digest& other) : context_(new_context()) {
  check(EVP_MD_CTX_copy_ex(context_.get(), other.context_.get()));
}

sha1_digest& sha1_digest::operator=(const sha1_digest& other) {
  if (this != &other) *this = sha1_digest(other);
  return *this;
}

void sha1_digest::update(std::string_view bytes) {
  check(EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size()));
}

std::string sha1_digest::value() const {
  // Finishing ends a digest for OpenSSL, so the copy is finished and this one can go on.
  const sha1_digest copy(*this);
  std::string bytes(SHA_DIGEST_LENGTH, '\0');
  check(EVP_DigestFinal_ex(copy.context_.get(), reinterpret_cast<unsigned char*>(bytes.data()), nullptr));
  return bytes;
}

std::string sha1_of(std::string_view bytes) {
  sha1_digest digest;
  digest.update(bytes);
  return digest.value();
}

std::string sha256_of(std::string_view bytes) {
  std::string result(SHA256_DIGEST_LENGTH, '\0');
  check(EVP_Digest(bytes.data(), bytes.size(), reinterpret_cast<unsigned char*>(result.data()), nullptr, EVP_sha256(),
                   nullptr));
  return result;
}

std::string hmac_sha256_of(std::string_view key, std::string_view bytes) {
  std::string result(SHA256_DIGEST_LENGTH, '\0');
  const unsigned char* made =
      HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()), reinterpret_cast<const unsigned char*>(bytes.data()),
           bytes.size(), reinterpret_cast<unsigned char*>(result.data()), nullptr);
  check(made != nullptr ? 1 : 0);
  return result;
}

}  // namespace tarvex::emulator
