#include "config/password_hash.h"

#include "base/text.h"

#include <crypt.h>
#include <openssl/crypto.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
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

struct release_setting {
  void operator()(char* setting) const noexcept { std::free(setting); }
};

/// FTP's lines end such a password early (RFC 959 section 5.3), and crypt reads up to the first NUL.
constexpr std::string_view NEVER_SENT("\r\n\0", 3);

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

std::string password_hash_make(const secret& password, std::string& hash) {
  if (password.text().empty()) return "the password is empty";
  if (password.text().find_first_of(NEVER_SENT) != std::string::npos)
    return "the password has a line break or a NUL byte in it, which no client can send";
  if (password.text().size() > CRYPT_MAX_PASSPHRASE_SIZE)
    return "the password is longer than " + std::to_string(CRYPT_MAX_PASSPHRASE_SIZE) + " bytes";
  const std::unique_ptr<char, release_setting> setting(crypt_gensalt_ra("$y$", 0, nullptr, 0));
  if (!setting) return std::string("no salt for the password: ") + std::strerror(errno);
  const std::unique_ptr<crypt_data, cleanse_crypt_data> data(new crypt_data{});
  const char* const computed = crypt_rn(password.text().c_str(), setting.get(), data.get(), sizeof *data);
  if (computed == nullptr) return std::string("the password cannot be hashed: ") + std::strerror(errno);
  hash = computed;
  return {};
}

}  // namespace tarvex::server
