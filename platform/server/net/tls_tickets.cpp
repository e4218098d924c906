#include "net/tls_tickets.h"

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/params.h>
#include <openssl/rand.h>

#include <algorithm>
#include <new>

namespace tarvex::server {

namespace {

/// As SSL_CTX_set_tlsext_ticket_key_evp_cb wants them.
constexpr int TICKET_FAILED = -1;
constexpr int NO_TICKET = 0;
constexpr int TICKET_USED = 1;

constexpr std::size_t TICKET_NAME_BYTES = 16;

int ticket_role_index() {
  static const int INDEX = SSL_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
  return INDEX;
}

const tls_ticket_role* ticket_role_of(const SSL* connection) {
  return static_cast<const tls_ticket_role*>(SSL_get_ex_data(connection, ticket_role_index()));
}

bool set_ticket_authentication(EVP_MAC_CTX* mac, const tls_ticket_key& key) {
  std::array<unsigned char, 32> bytes = key.authentication;  // parameters are not constant, though they are read only
  char digest[] = "SHA256";
  const OSSL_PARAM parameters[] = {OSSL_PARAM_construct_octet_string(OSSL_MAC_PARAM_KEY, bytes.data(), bytes.size()),
                                   OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digest, 0),
                                   OSSL_PARAM_construct_end()};
  const bool set = EVP_MAC_CTX_set_params(mac, parameters) == 1;
  OPENSSL_cleanse(bytes.data(), bytes.size());
  return set;
}

int seal_ticket(const tls_ticket_key& key, unsigned char* name, unsigned char* iv, EVP_CIPHER_CTX* cipher,
                EVP_MAC_CTX* mac) {
  if (RAND_bytes(iv, EVP_CIPHER_get_iv_length(EVP_aes_256_cbc())) != 1) return TICKET_FAILED;
  std::copy(key.name.begin(), key.name.end(), name);
  const bool ready = EVP_EncryptInit_ex(cipher, EVP_aes_256_cbc(), nullptr, key.encryption.data(), iv) == 1 &&
                     set_ticket_authentication(mac, key);
  return ready ? TICKET_USED : TICKET_FAILED;
}

int unseal_ticket(const tls_ticket_key& key, const unsigned char* name, const unsigned char* iv, EVP_CIPHER_CTX* cipher,
                  EVP_MAC_CTX* mac) {
  if (!std::equal(key.name.begin(), key.name.end(), name)) return NO_TICKET;
  const bool ready = EVP_DecryptInit_ex(cipher, EVP_aes_256_cbc(), nullptr, key.encryption.data(), iv) == 1 &&
                     set_ticket_authentication(mac, key);
  return ready ? TICKET_USED : TICKET_FAILED;
}

int on_ticket(SSL* connection, unsigned char* name, unsigned char* iv, EVP_CIPHER_CTX* cipher, EVP_MAC_CTX* mac,
              int sealing) {
  const tls_ticket_role* const role = ticket_role_of(connection);
  if (role == nullptr) return NO_TICKET;
  if (sealing == 0) return unseal_ticket(*role->key, name, iv, cipher, mac);
  return role->issues ? seal_ticket(*role->key, name, iv, cipher, mac) : NO_TICKET;
}

/// \return 1 when the reference that comes with the call was taken over.
int on_new_session(SSL* connection, SSL_SESSION* made) {
  const tls_ticket_role* const role = ticket_role_of(connection);
  if (role == nullptr || !role->issues || SSL_version(connection) != TLS1_2_VERSION) return 0;
  role->remembered->reset(made);
  return 1;
}

SSL_SESSION* on_session_wanted(SSL* connection, const unsigned char* id, int length, int* take_reference) {
  *take_reference = 1;
  const tls_ticket_role* const role = ticket_role_of(connection);
  if (role == nullptr || *role->remembered == nullptr) return nullptr;
  unsigned own_length = 0;
  const unsigned char* const own = SSL_SESSION_get_id(role->remembered->get(), &own_length);
  return std::equal(own, own + own_length, id, id + length) ? role->remembered->get() : nullptr;
}

}  // namespace

tls_ticket_key::tls_ticket_key() {
  static_assert(sizeof(name) == TICKET_NAME_BYTES);
  if (RAND_bytes(name.data(), static_cast<int>(name.size())) != 1 ||
      RAND_bytes(encryption.data(), static_cast<int>(encryption.size())) != 1 ||
      RAND_bytes(authentication.data(), static_cast<int>(authentication.size())) != 1)
    throw std::bad_alloc();
}

tls_ticket_key::~tls_ticket_key() {
  OPENSSL_cleanse(encryption.data(), encryption.size());
  OPENSSL_cleanse(authentication.data(), authentication.size());
}

/// OpenSSL's own cache would be one for all connections of the process.
bool tls_tickets_enable(SSL_CTX* context) {
  SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_SERVER | SSL_SESS_CACHE_NO_INTERNAL);
  SSL_CTX_sess_set_new_cb(context, on_new_session);
  SSL_CTX_sess_set_get_cb(context, on_session_wanted);
  return ticket_role_index() >= 0 && SSL_CTX_set_tlsext_ticket_key_evp_cb(context, on_ticket) == 1;
}

/// TLS 1.3 has tickets of its own accord, which the callback could not do without: their number is what says none.
bool tls_tickets_play(SSL* connection, const tls_ticket_role& role) {
  if (!role.issues && SSL_set_num_tickets(connection, 0) != 1) return false;
  return SSL_set_ex_data(connection, ticket_role_index(), const_cast<tls_ticket_role*>(&role)) == 1;
}

}  // namespace tarvex::server
