#include "box/redirect.h"

#include "base/text.h"

#include <algorithm>
#include <optional>

namespace tarvex::emulator {
namespace {

constexpr std::string_view LOOPBACK_HOSTS[] = {"127.0.0.1", "[::1]", "localhost"};
constexpr std::string_view HTTP = "http://";

struct loopback_address {
  std::string_view host;
  std::string_view rest;  // path and query

  bool operator==(const loopback_address&) const = default;
};

bool is_port(std::string_view text) {
  const auto number = text.size() <= 5 ? number_of(text) : std::nullopt;
  return number && *number > 0 && *number < 65536 && text.front() != '+';
}

/// Nothing for other hosts, and for all that only looks like one of these ("http://localhost@example.com/").
std::optional<loopback_address> loopback_of(std::string_view text) {
  if (!text.starts_with(HTTP)) return std::nullopt;
  text.remove_prefix(HTTP.size());
  const std::string_view authority = text.substr(0, text.find_first_of("/?"));
  for (const std::string_view host : LOOPBACK_HOSTS) {
    if (!authority.starts_with(host)) continue;
    const std::string_view port = authority.substr(host.size());
    if (port.empty() || (port.front() == ':' && is_port(port.substr(1)))) {
      return loopback_address{host, text.substr(authority.size())};
    }
  }
  return std::nullopt;
}

}  // namespace

bool redirect_is_address(std::string_view text) {
  const auto colon = text.find("://");
  return colon != std::string_view::npos && colon > 0 && colon + 3 < text.size() &&
         std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c < 0x7f && c != '#'; });
}

bool redirect_matches(std::string_view registered, std::string_view given) {
  if (registered == given) return true;
  const auto known = loopback_of(registered);
  return known && known == loopback_of(given);
}

}  // namespace tarvex::emulator
