// The running contexts lie in records of a fixed layout, which only these calls fill; OpenSSL 3 marks them as
// deprecated.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

#include "digest.h"

#include "base64.h"
#include "error.h"

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
  static constexpr char DIGITS[] = "0123456789abcdef";
  std::string text;
  for (const unsigned char byte : bytes) {
    text += DIGITS[byte >> 4];
    text += DIGITS[byte & 15];
  }
  return text;
}

std::string digest_header(const sha1_digest& digest) {
  std::array<char, 29> text{};
  require(tarvex_l_gfs_base64_encode(digest.data(), digest.size(), text.data(), text.size()), "28 characters and NUL");
  return std::string("sha=") + text.data();
}

}  // namespace tarvex::box
