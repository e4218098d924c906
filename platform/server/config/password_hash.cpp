#include "config/password_hash.h"

#include "base/text.h"

#include <crypt.h>
#include <openssl/crypto.h>

#include <algorithm>
#include <memory>
#include <string_view>

namespace tarvex::server {

namespace {

struct cleanse_crypt_data {
  void operator()(crypt_data* data) const noexcept {
    OPENSSL_cleanse(data, sizeof *data);
    delete data;
  }
};

}  // namespace

/// Without a scheme's "$" or "_" anything that begins with two letters could be the oldest scheme's salt, so a password
/// in plain text is told apart by the length, which is fixed there.
bool is_password_hash(const std::string& hash) {
  constexpr std::size_t DES_LENGTH = 13;
  const int kind = crypt_checksalt(hash.c_str());
  if (kind == CRYPT_SALT_INVALID || kind == CRYPT_SALT_METHOD_DISABLED) return false;
  if (std::any_of(hash.begin(), hash.end(), is_control)) return false;
  return hash.starts_with('$') || hash.starts_with('_') || hash.size() == DES_LENGTH;
}

bool password_matches(const std::string& password, const std::string& hash) {
  const std::unique_ptr<crypt_data, cleanse_crypt_data> data(new crypt_data{});
  const char* const computed = crypt_rn(password.c_str(), hash.c_str(), data.get(), sizeof *data);
  // crypt reads up to the first NUL: what comes behind one would not count.
  if (computed == nullptr || password.find('\0') != std::string::npos) return false;
  const std::string_view answer(computed);
  return answer.size() == hash.size() && CRYPTO_memcmp(answer.data(), hash.data(), hash.size()) == 0;
}

}  // namespace tarvex::server
