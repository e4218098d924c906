#include "base64.h"

#include <openssl/evp.h>

#include <limits>

bool tarvex_l_gfs_base64_encode(const unsigned char* inbuf, size_t in_len, char* outbuf, size_t out_len) {
  if (in_len > std::numeric_limits<int>::max() / 2 || out_len < (in_len + 2) / 3 * 4 + 1) return false;
  EVP_EncodeBlock(reinterpret_cast<unsigned char*>(outbuf), inbuf, static_cast<int>(in_len));
  return true;
}
