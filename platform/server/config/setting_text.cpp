#include "config/setting_text.h"

#include "tarvex_common.hpp"

#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <charconv>
#include <memory>

namespace tarvex::server {

namespace {

bool is_alphanumeric(char byte) {
  return (byte >= '0' && byte <= '9') || (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z');
}

std::optional<std::uint16_t> port_parse(std::string_view text) {
  std::uint16_t port = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return port;
}

bool is_ipv6_address(const std::string& text) {
  in6_addr address = {};
  return inet_pton(AF_INET6, text.c_str(), &address) == 1;
}

struct host_and_port {
  std::string host;
  bool bracketed = false;
  std::optional<std::string_view> port;  ///< what follows the colon
};

/// Splits "host", "host:port", "[host]" and "[host]:port".
std::optional<host_and_port> split_authority(std::string_view text) {
  host_and_port parts;
  std::size_t end = 0;
  if (text.starts_with('[')) {
    parts.bracketed = true;
    end = text.find(']');
    if (end == std::string_view::npos) return std::nullopt;
    parts.host = text.substr(1, end - 1);
    ++end;
  } else {
    end = std::min(text.find(':'), text.size());
    parts.host = text.substr(0, end);
  }
  text.remove_prefix(end);
  if (text.empty()) return parts;
  if (text.front() != ':') return std::nullopt;
  parts.port = text.substr(1);
  return parts;
}

std::string openssl_error(const std::string& what) {
  const unsigned long code = ERR_get_error();
  ERR_clear_error();
  const char* const reason = ERR_reason_error_string(code);
  return what + ": " + (reason == nullptr ? "not usable" : reason);
}

}  // namespace

std::optional<listen_address> listen_address_parse(std::string_view text) {
  const std::optional<host_and_port> parts = split_authority(text);
  if (!parts || !parts->port) return std::nullopt;
  const std::optional<std::uint16_t> port = port_parse(*parts->port);
  if (!port || !(parts->bracketed ? is_ipv6_address(parts->host) : is_ipv4_address(parts->host))) return std::nullopt;
  return listen_address{parts->host, *port};
}

std::string listen_address_text(const listen_address& address) {
  const bool ipv6 = address.host.find(':') != std::string::npos;
  return (ipv6 ? "[" + address.host + "]" : address.host) + ":" + std::to_string(address.port);
}

bool is_ipv4_address(const std::string& text) {
  in_addr address = {};
  return inet_pton(AF_INET, text.c_str(), &address) == 1;
}

bool is_base_url(std::string_view text) {
  const std::size_t scheme = text.starts_with("https://") ? 8 : text.starts_with("http://") ? 7 : 0;
  if (scheme == 0) return false;
  const std::optional<host_and_port> parts = split_authority(text.substr(scheme));
  if (!parts || (parts->port && port_parse(*parts->port).value_or(0) == 0)) return false;
  if (parts->bracketed) return is_ipv6_address(parts->host);
  return !parts->host.empty() && std::all_of(parts->host.begin(), parts->host.end(), [](char byte) {
    return is_alphanumeric(byte) || byte == '.' || byte == '-' || byte == '_';
  });
}

bool is_symbol_part(std::string_view text) {
  return !text.empty() &&
         std::all_of(text.begin(), text.end(), [](char byte) { return is_alphanumeric(byte) || byte == '_'; });
}

std::string tls_files_error(const std::string& certificate, const std::string& key) {
  ERR_clear_error();
  const std::unique_ptr<SSL_CTX, releaser<SSL_CTX_free>> context(SSL_CTX_new(TLS_server_method()));
  if (context == nullptr) return openssl_error("TLS cannot be set up");
  if (SSL_CTX_use_certificate_chain_file(context.get(), certificate.c_str()) != 1) {
    return openssl_error("no certificate in PEM form can be read from \"" + certificate + "\"");
  }
  if (SSL_CTX_use_PrivateKey_file(context.get(), key.c_str(), SSL_FILETYPE_PEM) != 1) {
    return openssl_error("no private key in PEM form that fits the certificate can be read from \"" + key + "\"");
  }
  return {};
}

}  // namespace tarvex::server
