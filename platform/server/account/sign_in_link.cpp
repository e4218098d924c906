#include "account/sign_in_link.h"

#include "base/number.h"
#include "base/text.h"
#include "config/authority.h"
#include "config/url.h"
#include "oauth/https.h"

#include <openssl/crypto.h>
#include <sys/random.h>

#include <algorithm>
#include <array>
#include <stdexcept>
#include <utility>

namespace tarvex::server {

namespace {

using verdict = redirect_answer::verdict;

constexpr std::size_t STATE_BYTES = 16;
constexpr std::size_t REASON_BYTES_MAX = 300;

/// Form encoding the other way round; nothing for a broken escape.
std::optional<std::string> query_decode(std::string_view text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      out.push_back(text[i] == '+' ? ' ' : text[i]);
      continue;
    }
    const auto byte = parse_number<std::uint8_t>(text.substr(i + 1, 2), 16);
    if (!byte || i + 2 >= text.size()) return std::nullopt;
    out.push_back(static_cast<char>(*byte));
    i += 2;
  }
  return out;
}

/// The only value of a name: one that comes twice means nothing (RFC 6749 section 3.1).
std::string query_value(std::string_view query, std::string_view name) {
  std::optional<std::string> found;
  while (!query.empty()) {
    std::string_view value = take_field(query, '&');
    if (take_field(value, '=') != name) continue;
    if (found) return {};
    found = query_decode(value).value_or("");
  }
  return found.value_or("");
}

bool same_state(std::string_view got, std::string_view expected) {
  return got.size() == expected.size() && CRYPTO_memcmp(got.data(), expected.data(), expected.size()) == 0;
}

std::string denial(std::string_view query) {
  const std::string error = query_value(query, "error");
  const std::string description = query_value(query, "error_description");
  std::string reason;
  append_printable(reason, (error + (description.empty() ? "" : ": " + description)).substr(0, REASON_BYTES_MAX));
  return reason;
}

}  // namespace

std::string redirect_address::with_port(std::optional<std::uint16_t> chosen) const {
  return (secure ? "https://" : "http://") + host + (chosen ? ":" + std::to_string(*chosen) : "") + path;
}

std::optional<redirect_address> redirect_parse(std::string_view text) {
  if (!is_private_url(text)) return std::nullopt;
  redirect_address out;
  out.secure = text.starts_with("https:");
  text.remove_prefix(text.find("://") + 3);
  const std::size_t slash = text.find('/');
  const auto parts = authority_parse(text.substr(0, slash));
  if (!parts) return std::nullopt;
  const bool bracketed = text.starts_with('[');
  out.host = bracketed ? "[" + std::string(parts->host) + "]" : std::string(parts->host);
  out.port = parts->port;
  out.path = text.substr(slash);
  out.loopback = parts->address ? parts->address->is_loopback() : same_word(parts->host, "localhost");
  return out;
}

std::string new_sign_in_state() {
  std::array<unsigned char, STATE_BYTES> bits{};
  if (getrandom(bits.data(), bits.size(), 0) != static_cast<ssize_t>(bits.size()))
    throw std::runtime_error("the system has no random bits");
  std::string state;
  append_hex(state, bits);
  return state;
}

std::string authorise_address(const std::string& authorise_url, const std::string& client_id,
                              const std::string& redirect, const std::string& state) {
  return authorise_url + "?response_type=code&client_id=" + query_encode(client_id) +
         "&redirect_uri=" + query_encode(redirect) + "&state=" + query_encode(state);
}

redirect_answer redirect_read(std::string_view target, const redirect_address& redirect, std::string_view state) {
  const std::string_view whole = target.substr(0, target.find('#'));
  const std::size_t mark = whole.find('?');
  if (whole.substr(0, mark) != redirect.path) return {};
  const std::string_view query = mark == std::string_view::npos ? "" : whole.substr(mark + 1);
  if (!same_state(query_value(query, "state"), state)) return {.how = verdict::wrong_state};
  std::string code = query_value(query, "code");
  if (!code.empty()) return {.how = verdict::granted, .code = secret(std::move(code))};
  std::string reason = denial(query);
  if (reason.empty()) reason = "Box's answer has neither a code nor an error";
  return {.how = verdict::denied, .reason = std::move(reason)};
}

redirect_answer redirect_read_pasted(std::string_view address, const redirect_address& redirect,
                                     std::string_view state) {
  const std::size_t scheme_end = address.find("://");
  if (address.substr(0, scheme_end) != (redirect.secure ? "https" : "http")) return {};
  std::string_view rest = address.substr(scheme_end + 3);
  const std::size_t host_end = std::min(rest.find_first_of("/?#"), rest.size());
  const auto parts = authority_parse(rest.substr(0, host_end));
  const std::string expected_host =
      redirect.host.starts_with('[') ? redirect.host.substr(1, redirect.host.size() - 2) : redirect.host;
  if (!parts || !same_word(parts->host, expected_host)) return {};
  if (!redirect.loopback && parts->port != redirect.port) return {};
  return redirect_read(rest.substr(host_end), redirect, state);
}

}  // namespace tarvex::server
