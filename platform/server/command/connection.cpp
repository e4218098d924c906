#include "base/text.h"
#include "command/handlers.h"
#include "ftp/address.h"
#include "session/session_state.h"

namespace tarvex::server {

namespace {

constexpr std::uint16_t FIRST_TARGET_PORT = 1024;

/// Only back to the client itself, and not to the ports of services (RFC 2577 section 3).
void target_set(session& session, const host_port& address) {
  const socket_address& peer = session.control.peer();
  if (!same_host(address.host, boost::asio::ip::make_address(peer.host)))
    return session_reply(session, 504, "Data connections go to the client's own address only.");
  if (address.port < FIRST_TARGET_PORT)
    return session_reply(session, 504, "Data connections go to ports from 1024 up only.");
  session.data.target(session.control.local().host, peer.host, address.port);
  session_reply(session, 200, "Address taken.");
}

bool epsv_only_refused(session& session) {
  if (session.settings.epsv_only) session_reply(session, 503, "After EPSV ALL only EPSV is accepted.");
  return session.settings.epsv_only;
}

/// \return the port; 0 when none is free and the client was told.
std::uint16_t passive_listen(session& session) {
  const std::uint16_t port =
      session.data.listen(session.control.local().host, session.control.peer().host, session.setup.config->data_ports);
  if (port == 0) session_reply(session, 425, "No data port is free; try again later.");
  return port;
}

}  // namespace

void command_pasv(session& session, const std::string&) {
  if (epsv_only_refused(session)) return;
  if (session.control.local().ipv6) return session_reply(session, 425, "PASV is for IPv4; use EPSV.");
  const std::uint16_t port = passive_listen(session);
  if (port == 0) return;
  const auto local = boost::asio::ip::make_address_v4(session.control.local().host);
  const auto host = session.setup.config->passive_address.value_or(local);
  session_reply(session, 227, "Entering Passive Mode (" + port_address_format(host, port) + ").");
}

/// RFC 2428 section 3. The only protocol that works is that of the control connection.
void command_epsv(session& session, const std::string& argument) {
  if (same_word(argument, "ALL")) {
    session.settings.epsv_only = true;
    return session_reply(session, 200, "Only EPSV from now on.");
  }
  const std::string protocol = session.control.local().ipv6 ? "2" : "1";
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
  const auto address = port_address_parse(argument);
  if (!address) return session_reply(session, 501, "PORT takes h1,h2,h3,h4,p1,p2.");
  target_set(session, *address);
}

/// RFC 2428 section 2.
void command_eprt(session& session, const std::string& argument) {
  if (epsv_only_refused(session)) return;
  const auto address = extended_address_parse(argument);
  if (!address) return session_reply(session, 501, "EPRT takes |1 or 2|address|port|.");
  const std::string mine = session.control.local().ipv6 ? "2" : "1";
  if (address->protocol != mine)
    return session_reply(session, 522, "Network protocol not supported, use (" + mine + ").");
  if (!address->target) return session_reply(session, 501, "EPRT takes |1 or 2|address|port|.");
  target_set(session, *address->target);
}

}  // namespace tarvex::server
