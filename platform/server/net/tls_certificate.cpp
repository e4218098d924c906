#include "net/tls_certificate.h"

#include "tarvex_common.hpp"

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <array>

namespace tarvex::server {

namespace {

std::string fingerprint_text(const X509* certificate) {
  constexpr const char* DIGITS = "0123456789abcdef";
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest;
  unsigned length = 0;
  if (X509_digest(certificate, EVP_sha256(), digest.data(), &length) != 1) return {};
  std::string hex;
  for (unsigned i = 0; i < length; ++i) {
    hex += DIGITS[digest[i] >> 4];
    hex += DIGITS[digest[i] & 15];
  }
  return hex;
}

std::string subject_text(const X509* certificate, unsigned long flags) {
  const owner<BIO, BIO_free_all> into(BIO_new(BIO_s_mem()));
  if (into == nullptr || X509_NAME_print_ex(into.get(), X509_get_subject_name(certificate), 0, flags) < 0) return {};
  char* text = nullptr;  // borrowed
  const long length = BIO_get_mem_data(into.get(), &text);
  return {text, static_cast<std::size_t>(length)};
}

}  // namespace

certificate_names certificate_names_of(const X509* certificate) {
  if (certificate == nullptr) return {};
  constexpr unsigned long ESCAPED = XN_FLAG_RFC2253;
  constexpr unsigned long AS_IT_STANDS = ESCAPED & ~static_cast<unsigned long>(ASN1_STRFLGS_ESC_MSB);
  const std::string digest = fingerprint_text(certificate);
  if (digest.empty()) return {};
  return {"sha256:" + digest, "subject:" + subject_text(certificate, AS_IT_STANDS),
          "subject:" + subject_text(certificate, ESCAPED)};
}

}  // namespace tarvex::server
