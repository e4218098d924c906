#include "oauth/jwt_app.h"

#include "base/json.h"
#include "base/text.h"
#include "tarvex_common.hpp"

#include <jwt.h>
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <sys/random.h>

#include <array>
#include <cstring>
#include <string_view>

namespace tarvex::server {

namespace {

using jwt_handle = owner<jwt_t, jwt_free>;
using key_handle = owner<EVP_PKEY, EVP_PKEY_free>;
using memory_bio = owner<BIO, BIO_free_all>;

constexpr std::chrono::seconds ASSERTION_LIFE{45};  ///< Box takes 60 at most, by its own clock
constexpr int LEAST_KEY_BITS = 2048;

struct passphrase_question {
  secret given;
  const std::function<secret()>& ask;
};

/// OpenSSL asks only where the key is encrypted.
int give_passphrase(char* room, int size, int, void* of) {
  auto& question = *static_cast<passphrase_question*>(of);
  if (question.given.text().empty() && question.ask) question.given = question.ask();
  const std::string& text = question.given.text();
  if (text.empty() || text.size() > static_cast<std::size_t>(size)) return -1;
  std::memcpy(room, text.data(), text.size());
  return static_cast<int>(text.size());
}

/// \return the key as PEM without encryption; empty when it cannot be read.
secret plain_key(const std::string& pem, passphrase_question& question, std::string& error) {
  const memory_bio in(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  const key_handle key(in ? PEM_read_bio_PrivateKey(in.get(), nullptr, give_passphrase, &question) : nullptr);
  if (!key) {
    error = "its private key cannot be read; is the passphrase right?";
    return {};
  }
  if (EVP_PKEY_get_base_id(key.get()) != EVP_PKEY_RSA || EVP_PKEY_get_bits(key.get()) < LEAST_KEY_BITS) {
    error = "its private key is no RSA key of 2048 bits or more";
    return {};
  }
  const memory_bio out(BIO_new(BIO_s_secmem()));
  char* bytes = nullptr;
  if (!out || PEM_write_bio_PrivateKey(out.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) != 1) {
    error = "there is no memory for its private key";
    return {};
  }
  const long length = BIO_get_mem_data(out.get(), &bytes);
  return secret(std::string(bytes, static_cast<std::size_t>(length)));
}

/// An id of 128 random bits; empty when there are none to be had.
std::string new_id() {
  std::array<unsigned char, 16> bits{};
  if (getrandom(bits.data(), bits.size(), 0) != static_cast<ssize_t>(bits.size())) return {};
  std::string id;
  append_hex(id, bits);
  return id;
}

}  // namespace

std::string jwt_app_parse(std::string&& content, const std::function<secret()>& ask_passphrase, jwt_app& out) {
  json_error_t where{};
  const json_document file(json_loadb(content.data(), content.size(), JSON_REJECT_DUPLICATES, &where));
  wipe(content);
  if (!json_is_object(file.get())) return "it is no JSON object: line " + std::to_string(where.line);
  const json_t* const settings = json_object_get(file.get(), "boxAppSettings");
  const json_t* const authentication = json_object_get(settings, "appAuth");
  out.app.client_id = json_text_of(settings, "clientID").value_or("");
  out.app.client_secret = secret(json_text_of(settings, "clientSecret").value_or(""));
  out.key_id = json_text_of(authentication, "publicKeyID").value_or("");
  const secret pem(json_text_of(authentication, "privateKey").value_or(""));
  if (out.app.client_id.empty() || out.app.client_secret.text().empty() || out.key_id.empty() || pem.text().empty())
    return "it lacks clientID, clientSecret, publicKeyID or privateKey; download it anew from the app's configuration "
           "in Box's developer console (\"Generate a Public/Private Keypair\")";
  passphrase_question question{secret(json_text_of(authentication, "passphrase").value_or("")), ask_passphrase};
  std::string error;
  out.private_key = plain_key(pem.text(), question, error);
  return error;
}

secret jwt_assertion(const jwt_app& app, const std::string& audience, const std::string& box_user,
                     std::chrono::sys_seconds now) {
  jwt_t* made = nullptr;
  if (jwt_new(&made) != 0) return {};
  const jwt_handle token(made);
  const std::string id = new_id();
  const auto* const key = reinterpret_cast<const unsigned char*>(app.private_key.text().data());
  const auto when = [&](std::chrono::sys_seconds time) { return static_cast<long>(time.time_since_epoch().count()); };
  const bool set =
      !id.empty() && jwt_add_grant(made, "iss", app.app.client_id.c_str()) == 0 &&
      jwt_add_grant(made, "sub", box_user.c_str()) == 0 && jwt_add_grant(made, "box_sub_type", "user") == 0 &&
      jwt_add_grant(made, "aud", audience.c_str()) == 0 && jwt_add_grant(made, "jti", id.c_str()) == 0 &&
      jwt_add_grant_int(made, "exp", when(now + ASSERTION_LIFE)) == 0 &&
      jwt_add_header(made, "kid", app.key_id.c_str()) == 0 &&
      jwt_set_alg(made, jwt_str_alg(app.algorithm.c_str()), key, static_cast<int>(app.private_key.text().size())) == 0;
  if (!set) return {};
  const c_string text(jwt_encode_str(made));
  return text ? secret(std::string(text.get())) : secret();
}

}  // namespace tarvex::server
