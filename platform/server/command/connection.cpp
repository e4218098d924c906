#include "base/text.h"
#include "command/handler.h"
#include "ftp/address.h"
#include "session/session.h"

#include <optional>

namespace tarvex::server {

namespace {

constexpr std::uint16_t FIRST_TARGET_PORT = 1024;

/// Only back to the client itself, and not to the ports of services (RFC 2577 section 3).
void target_set(session& client, const host_port& target) {
  const boost::asio::ip::address peer = client.control.peer().address;
  if (!same_host(address_plain(target.host), peer))
    return client.reply(504, "Data connections go to the client's own address only.");
  if (target.port < FIRST_TARGET_PORT) return client.reply(504, "Data connections go to ports from 1024 up only.");
  client.data.target(client.control.local().address, peer, target.port);
  client.reply(200, "Address taken.");
}

bool epsv_only_refused(session& client) {
  if (client.settings.epsv_only) client.reply(503, "After EPSV ALL only EPSV is accepted.");
  return client.settings.epsv_only;
}

/// \return the port; 0 when none is free and the client was told.
std::uint16_t passive_listen(session& client) {
  const std::uint16_t port =
      client.data.listen(client.control.local().address, client.control.peer().address, client.config.data_ports);
  if (port == 0) client.reply(425, "No data port is free; try again later.");
  return port;
}

/// RFC 2428's number of the only protocol that works: that of the control connection.
char protocol_of(const session& client) {
  return client.control.local().ipv6() ? '2' : '1';
}

void refuse_protocol(session& client) {
  client.reply(522, std::string("Network protocol not supported, use (") + protocol_of(client) + ").");
}

}  // namespace

handled command_pasv(session& client, std::string) {
  if (epsv_only_refused(client)) co_return;
  if (client.control.local().ipv6()) co_return client.reply(425, "PASV is for IPv4; use EPSV.");
  const std::uint16_t port = passive_listen(client);
  if (port == 0) co_return;
  const auto announced = client.config.passive_address.value_or(client.control.local().address.to_v4());
  client.reply(227, "Entering Passive Mode (" + port_address_format(announced, port) + ").");
}

/// RFC 2428 section 3.
handled command_epsv(session& client, std::string argument) {
  if (same_word(argument, "ALL")) {
    client.settings.epsv_only = true;
    co_return client.reply(200, "Only EPSV from now on.");
  }
  if (!argument.empty() && argument != "1" && argument != "2")
    co_return client.reply(501, "EPSV takes 1, 2, ALL or nothing.");
  if (!argument.empty() && argument.front() != protocol_of(client)) co_return refuse_protocol(client);
  const std::uint16_t port = passive_listen(client);
  if (port == 0) co_return;
  client.reply(229, "Entering Extended Passive Mode (|||" + std::to_string(port) + "|).");
}

handled command_port(session& client, std::string argument) {
  if (epsv_only_refused(client)) co_return;
  const auto target = port_address_parse(argument);
  if (!target) co_return client.reply(501, "PORT takes h1,h2,h3,h4,p1,p2.");
  target_set(client, *target);
}

/// A server of one node is passive as by PASV, in a reply with a line for each node (GFD-R.020).
handled command_spas(session& client, std::string) {
  if (epsv_only_refused(client)) co_return;
  if (client.control.local().ipv6()) co_return client.reply(425, "SPAS is for IPv4; use EPSV.");
  const std::uint16_t port = passive_listen(client);
  if (port == 0) co_return;
  const auto announced = client.config.passive_address.value_or(client.control.local().address.to_v4());
  client.reply_block(229, "Entering Striped Passive Mode.", {port_address_format(announced, port)}, "End");
}

/// One address for each node of the client; a server of one node has use for the first.
handled command_spor(session& client, std::string argument) {
  if (epsv_only_refused(client)) co_return;
  std::string_view rest = argument;
  std::optional<host_port> first;
  while (!rest.empty()) {
    const auto target = port_address_parse(take_word(rest));
    if (!target) co_return client.reply(501, "SPOR takes h1,h2,h3,h4,p1,p2, once for each node.");
    if (!first) first = target;
  }
  target_set(client, *first);
}

/// RFC 2428 section 2.
handled command_eprt(session& client, std::string argument) {
  if (epsv_only_refused(client)) co_return;
  const auto wanted = extended_address_parse(argument);
  if (wanted && wanted->protocol != std::string(1, protocol_of(client))) co_return refuse_protocol(client);
  if (!wanted || !wanted->target) co_return client.reply(501, "EPRT takes |1 or 2|address|port|.");
  target_set(client, *wanted->target);
}

}  // namespace tarvex::server
