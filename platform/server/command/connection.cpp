#include "base/text.h"
#include "command/handlers.h"
#include "session/session_state.h"

#include <arpa/inet.h>
#include <algorithm>
#include <array>
#include <charconv>
#include <optional>

namespace tarvex::server {

namespace {

constexpr std::uint16_t FIRST_TARGET_PORT = 1024;

template <typename T>
std::optional<T> number(std::string_view text) {
  T value{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

/// Cuts at `separator`, up to its next or the end.
std::string_view cut(std::string_view& text, char separator) {
  const std::string_view first = text.substr(0, text.find(separator));
  text.remove_prefix(std::min(text.size(), first.size() + 1));
  return first;
}

/// The one way to write a numeric address, without its scope; empty when it is none.
std::string address_canonical(std::string_view host) {
  const std::string text(host.substr(0, host.find('%')));
  const int family = text.find(':') == std::string::npos ? AF_INET : AF_INET6;
  std::array<unsigned char, sizeof(in6_addr)> binary{};
  std::array<char, INET6_ADDRSTRLEN> out{};
  if (inet_pton(family, text.c_str(), binary.data()) != 1) return {};
  return inet_ntop(family, binary.data(), out.data(), out.size()) ? std::string(out.data()) : std::string();
}

struct host_port {
  std::string host;
  std::uint16_t port = 0;
};

/// "h1,h2,h3,h4,p1,p2" (RFC 959 section 4.1.2).
std::optional<host_port> port_parse(std::string_view text) {
  std::array<unsigned, 6> field{};
  if (std::count(text.begin(), text.end(), ',') != 5) return std::nullopt;
  for (auto& value : field) {
    const auto parsed = number<std::uint8_t>(cut(text, ','));
    if (!parsed) return std::nullopt;
    value = *parsed;
  }
  host_port address;
  for (std::size_t i = 0; i < 4; ++i) address.host += (i == 0 ? "" : ".") + std::to_string(field[i]);
  address.port = static_cast<std::uint16_t>(field[4] * 256 + field[5]);
  return address;
}

/// "h1,h2,h3,h4,p1,p2" of a numeric IPv4 address.
std::string port_format(std::string host, std::uint16_t port) {
  for (char& byte : host) {
    if (byte == '.') byte = ',';
  }
  return host + "," + std::to_string(port / 256) + "," + std::to_string(port % 256);
}

/// Only back to the client itself, and not to the ports of services (RFC 2577 section 3).
void target_set(session& session, const host_port& address) {
  const socket_address& peer = session.control.peer();
  if (address_canonical(address.host) != address_canonical(peer.host()))
    return session_reply(session, 504, "Data connections go to the client's own address only.");
  if (address.port < FIRST_TARGET_PORT)
    return session_reply(session, 504, "Data connections go to ports from 1024 up only.");
  session.data.target(session.control.local().address, peer.address, address.port);
  session_reply(session, 200, "Address taken.");
}

bool epsv_only_refused(session& session) {
  if (session.settings.epsv_only) session_reply(session, 503, "After EPSV ALL only EPSV is accepted.");
  return session.settings.epsv_only;
}

/// \return the port; 0 when none is free and the client was told.
std::uint16_t passive_listen(session& session) {
  const std::uint16_t port = session.data.listen(session.control.local().address, session.control.peer().address,
                                                 session.setup.config->data_ports);
  if (port == 0) session_reply(session, 425, "No data port is free; try again later.");
  return port;
}

}  // namespace

void command_pasv(session& session, const std::string&) {
  if (epsv_only_refused(session)) return;
  if (session.control.local().ipv6()) return session_reply(session, 425, "PASV is for IPv4; use EPSV.");
  const std::uint16_t port = passive_listen(session);
  if (port == 0) return;
  const std::string& announced = session.setup.config->passive_address;
  const std::string host = announced.empty() ? session.control.local().host() : announced;
  session_reply(session, 227, "Entering Passive Mode (" + port_format(host, port) + ").");
}

/// RFC 2428 section 3. The only protocol that works is that of the control connection.
void command_epsv(session& session, const std::string& argument) {
  if (same_word(argument, "ALL")) {
    session.settings.epsv_only = true;
    return session_reply(session, 200, "Only EPSV from now on.");
  }
  const std::string protocol = session.control.local().ipv6() ? "2" : "1";
  if (!argument.empty() && argument != "1" && argument != "2")
    return session_reply(session, 501, "EPSV takes 1, 2, ALL or nothing.");
  if (!argument.empty() && argument != protocol)
    return session_reply(session, 522, "Network protocol not supported, use (" + protocol + ").");
  const std::uint16_t port = passive_listen(session);
  if (port == 0) return;
  session_reply(session, 229, "Entering Extended Passive Mode (|||" + std::to_string(port) + "|).");
}

void command_port(session& session, const std::string& argument) {
  if (epsv_only_refused(session)) return;
  const auto address = port_parse(argument);
  if (!address) return session_reply(session, 501, "PORT takes h1,h2,h3,h4,p1,p2.");
  target_set(session, *address);
}

/// RFC 2428 section 2.
void command_eprt(session& session, const std::string& argument) {
  if (epsv_only_refused(session)) return;
  const char separator = argument.front();
  std::string_view text = argument;
  if (std::count(text.begin(), text.end(), separator) != 4 || text.back() != separator)
    return session_reply(session, 501, "EPRT takes |1 or 2|address|port|.");
  text.remove_prefix(1);
  const std::string_view protocol = cut(text, separator);
  const std::string_view host = cut(text, separator);
  const auto port = number<std::uint16_t>(cut(text, separator));
  const std::string mine = session.control.local().ipv6() ? "2" : "1";
  if (protocol != mine) return session_reply(session, 522, "Network protocol not supported, use (" + mine + ").");
  if (!port) return session_reply(session, 501, "EPRT takes |1 or 2|address|port|.");
  target_set(session, {std::string(host), *port});
}

}  // namespace tarvex::server
