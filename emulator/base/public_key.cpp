#include "base/public_key.h"

#include "tarvex_common.hpp"

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <new>

namespace tarvex::emulator {
namespace {

constexpr int LEAST_BITS = 2048;

using memory_ptr = owner<BIO, BIO_free_all>;
using verification_ptr = owner<EVP_MD_CTX, EVP_MD_CTX_free>;

/// A file may hold a key that wants a passphrase; without this OpenSSL would ask the terminal for it.
int no_passphrase(char* /*into*/, int /*size*/, int /*writing*/, void* /*unused*/) {
  return -1;
}

}  // namespace

std::string public_key_read(const std::string& pem, public_key& into) {
  const memory_ptr memory(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  if (!memory) throw std::bad_alloc();
  const public_key key(PEM_read_bio_PUBKEY(memory.get(), nullptr, no_passphrase, nullptr), EVP_PKEY_free);
  if (!key) return "it is no PEM text with a BEGIN PUBLIC KEY";
  if (EVP_PKEY_get_base_id(key.get()) != EVP_PKEY_RSA) return "it is no RSA key";
  if (EVP_PKEY_get_bits(key.get()) < LEAST_BITS) return "it has less than 2048 bits";
  into = key;
  return {};
}

bool public_key_has_signed(const public_key& key, const char* digest, std::string_view message,
                           std::string_view signature) {
  const verification_ptr context(EVP_MD_CTX_new());
  if (!context) throw std::bad_alloc();
  // PKCS#1 v1.5 is what OpenSSL does with RSA keys where nothing else is asked for.
  return EVP_DigestVerifyInit_ex(context.get(), nullptr, digest, nullptr, nullptr, key.get(), nullptr) == 1 &&
         EVP_DigestVerify(context.get(), reinterpret_cast<const unsigned char*>(signature.data()), signature.size(),
                          reinterpret_cast<const unsigned char*>(message.data()), message.size()) == 1;
}

}  // namespace tarvex::emulator
