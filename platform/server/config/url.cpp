// These are the only URLs of the server's own: a host, a port, and at most a path, for which a library of URLs would be
// a dependency more and no line less.
#include "config/url.h"

#include "base/text.h"
#include "config/authority.h"

#include <algorithm>
#include <array>
#include <span>

namespace tarvex::server {

namespace {

constexpr auto BASE_SCHEMES = std::to_array<std::string_view>({"http", "https"});
constexpr auto PROXY_SCHEMES =
    std::to_array<std::string_view>({"http", "https", "socks4", "socks4a", "socks5", "socks5h"});

/// What follows "SCHEME://" of a known scheme; nothing for other texts.
std::optional<std::string_view> after_scheme(std::string_view text, std::span<const std::string_view> schemes) {
  const std::size_t end = text.find("://");
  const std::string_view scheme = text.substr(0, end);
  const bool known = std::find(schemes.begin(), schemes.end(), scheme) != schemes.end();
  return known && end != std::string_view::npos ? std::optional(text.substr(end + 3)) : std::nullopt;
}

bool is_authority(std::string_view text) {
  const std::optional<authority> parts = authority_parse(text);
  return parts && parts->port != 0;
}

bool is_loopback(std::string_view text) {
  const std::optional<authority> parts = authority_parse(text);
  return parts && (parts->address ? parts->address->is_loopback() : same_word(parts->host, "localhost"));
}

/// RFC 3986 section 3.3: others than printable ASCII characters are percent-encoded.
bool is_path(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char byte) {
    return byte > ' ' && byte < '\x7f' && std::string_view("?#\"<>\\^`{|}").find(byte) == std::string_view::npos;
  });
}

/// RFC 3986 section 3.2.1: what could be taken for the end of the user is percent-encoded.
bool is_user(std::string_view text) {
  return !text.empty() && text.find_first_of("@/?#[] ") == std::string_view::npos &&
         std::none_of(text.begin(), text.end(), is_control);
}

}  // namespace

bool is_base_url(std::string_view text) {
  const auto rest = after_scheme(text, BASE_SCHEMES);
  return rest && is_authority(*rest);
}

bool is_private_url(std::string_view text) {
  constexpr auto HTTPS = std::to_array<std::string_view>({"https"});
  const auto secure = after_scheme(text, HTTPS);
  const auto rest = secure ? secure : after_scheme(text, BASE_SCHEMES);
  const std::size_t slash = rest ? rest->find('/') : std::string_view::npos;
  if (slash == std::string_view::npos || !is_path(rest->substr(slash))) return false;
  const std::string_view host = rest->substr(0, slash);
  return is_authority(host) && (secure || is_loopback(host));
}

bool is_proxy_url(std::string_view text) {
  const auto rest = after_scheme(text, PROXY_SCHEMES);
  if (!rest) return false;
  const std::size_t at = rest->find('@');
  if (at == std::string_view::npos) return is_authority(*rest);
  return is_user(rest->substr(0, at)) && is_authority(rest->substr(at + 1));
}

std::string proxy_schemes() {
  std::string text;
  for (const std::string_view scheme : PROXY_SCHEMES) {
    text.append(text.empty() ? "" : scheme == PROXY_SCHEMES.back() ? " or " : ", ").append(scheme);
  }
  return text;
}

}  // namespace tarvex::server
