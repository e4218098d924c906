#include "base/secret.h"

#include <openssl/crypto.h>

namespace tarvex::server {

void wipe(std::string& text) noexcept {
  // Up to the capacity: a longer text may have stood there. Growing to it allocates nothing.
  text.resize(text.capacity());
  OPENSSL_cleanse(text.data(), text.size());
  text.clear();
}

}  // namespace tarvex::server
