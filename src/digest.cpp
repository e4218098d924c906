// The running contexts lie in records of a fixed layout, which only these calls fill; OpenSSL 3 marks them as
// deprecated.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

#include "digest.h"

namespace tarvex::box {

bool sha1_begin(SHA_CTX& context) {
  return SHA1_Init(&context) == 1;
}

bool sha1_update(SHA_CTX& context, const void* data, size_t length) {
  return SHA1_Update(&context, data, length) == 1;
}

bool sha1_finish(SHA_CTX& context, sha1_digest& digest) {
  return SHA1_Final(digest.data(), &context) == 1;
}

bool md5_begin(MD5_CTX& context) {
  return MD5_Init(&context) == 1;
}

bool md5_update(MD5_CTX& context, const void* data, size_t length) {
  return MD5_Update(&context, data, length) == 1;
}

bool md5_finish(MD5_CTX& context, md5_digest& digest) {
  return MD5_Final(digest.data(), &context) == 1;
}

bool sha1_of(const void* data, size_t length, sha1_digest& digest) {
  return SHA1(static_cast<const unsigned char*>(data), length, digest.data()) != nullptr;
}

std::string hex_text(std::span<const unsigned char> bytes) {
  static constexpr char digits[] = "0123456789abcdef";
  std::string text;
  for (const unsigned char byte : bytes) {
    text += digits[byte >> 4];
    text += digits[byte & 15];
  }
  return text;
}

}  // namespace tarvex::box
