#include "net/tls_identity.h"

#include "base/log.h"
#include "config/tls_files.h"
#include "net/tls_tickets.h"

#include <fmt/chrono.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <chrono>
#include <string_view>

namespace tarvex::server {

namespace {

constexpr std::chrono::hours EXPIRY_WARNING{14 * 24};

/// Longer than any session: its key goes with the session anyway, and a long one's data connections still resume.
constexpr long TICKET_LIFETIME_S = 7L * 24 * 3600;

constexpr const char* TLS13_CIPHERS = "TLS_AES_128_GCM_SHA256:TLS_AES_256_GCM_SHA384:TLS_CHACHA20_POLY1305_SHA256";

/// ALPN (RFC 7301): a client that says what it wants to speak says "ftp", or is talking to the wrong server. It may
/// have been led here by somebody who wants its request for another server to be taken for commands.
int choose_protocol(SSL*, const unsigned char** out, unsigned char* out_length, const unsigned char* offered,
                    unsigned offered_length, void*) {
  constexpr std::string_view OURS = "ftp";
  for (unsigned i = 0; i < offered_length; i += offered[i] + 1U) {
    const std::string_view name(reinterpret_cast<const char*>(offered + i + 1), offered[i]);
    if (name != OURS) continue;
    *out = offered + i + 1;
    *out_length = offered[i];
    return SSL_TLSEXT_ERR_OK;
  }
  return SSL_TLSEXT_ERR_ALERT_FATAL;
}

/// What holds for every server, whatever its files.
bool set_rules(SSL_CTX* context) {
  constexpr unsigned char SERVICE[] = "ftp";
  // All ciphers are good, so the order is one of speed; who has no instructions for AES begins with ChaCha.
  SSL_CTX_set_options(context, SSL_OP_CIPHER_SERVER_PREFERENCE | SSL_OP_PRIORITIZE_CHACHA);
  SSL_CTX_set_options(context, SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION |
                                   // A FIN without close_notify is told apart by whoever reads.
                                   SSL_OP_IGNORE_UNEXPECTED_EOF);
  SSL_CTX_set_timeout(context, TICKET_LIFETIME_S);
  SSL_CTX_set_alpn_select_cb(context, choose_protocol, nullptr);
  return SSL_CTX_set_ciphersuites(context, TLS13_CIPHERS) == 1 &&
         SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION) == 1 && SSL_CTX_set_dh_auto(context, 1) == 1 &&
         SSL_CTX_set_session_id_context(context, SERVICE, sizeof SERVICE - 1) == 1 && tls_tickets_enable(context);
}

std::time_t end_of(const X509* certificate) {
  std::tm when = {};
  return ASN1_TIME_to_tm(X509_get0_notAfter(certificate), &when) == 1 ? timegm(&when) : 0;
}

std::time_t end_of_chain(SSL_CTX* context) {
  std::time_t end = end_of(SSL_CTX_get0_certificate(context));
  STACK_OF(X509)* chain = nullptr;  // borrowed
  SSL_CTX_get0_chain_certs(context, &chain);
  for (int i = 0; i < sk_X509_num(chain); ++i) end = std::min(end, end_of(sk_X509_value(chain, i)));
  return end;
}

}  // namespace

tls_identity_answer tls_identity_load(const configuration& config) {
  if (config.tls_certificate.empty()) return {};
  const std::shared_ptr<SSL_CTX> context(SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
  if (context == nullptr || !set_rules(context.get())) {
    ERR_clear_error();
    return {nullptr, "TLS cannot be set up: out of memory"};
  }
  std::string error = tls_files_load(config, context.get());
  if (!error.empty()) return {nullptr, std::move(error)};
  return {std::make_shared<tls_identity>(tls_identity{context, config.tls_certificate, end_of_chain(context.get())}),
          {}};
}

void tls_identity_log_expiry(const tls_identity& identity, bool in_any_case) {
  const auto left = std::chrono::system_clock::from_time_t(identity.valid_until) - std::chrono::system_clock::now();
  const std::string until = fmt::format("{:%Y-%m-%d %H:%M} UTC", fmt::gmtime(identity.valid_until));
  const auto days = std::chrono::duration_cast<std::chrono::hours>(left).count() / 24;
  if (left <= left.zero())
    log_warning("the certificate in {} has expired ({}): clients will refuse it", identity.certificate_file, until);
  else if (left < EXPIRY_WARNING)
    log_warning("the certificate in {} expires in {} days ({})", identity.certificate_file, days, until);
  else if (in_any_case)
    log_info("the certificate in {} is valid until {} ({} days)", identity.certificate_file, until, days);
}

}  // namespace tarvex::server
