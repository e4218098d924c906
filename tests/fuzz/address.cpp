// Arguments of PORT and EPRT: what is taken for an address is one, and reads the same when it is written again.
#include "ftp/address.h"
#include "fuzz.h"

#include <string>

namespace tarvex::server {
namespace {

using fuzz::must;

void check_port(std::string_view text) {
  const auto taken = port_address_parse(text);
  if (!taken) return;
  const auto again = port_address_parse(port_address_format(taken->host.to_v4(), taken->port));
  must(again && again->host == taken->host && again->port == taken->port);
}

void check_extended(std::string_view text) {
  const auto taken = extended_address_parse(text);
  if (!taken || !taken->target) return;
  const auto& [host, port] = *taken->target;
  must((taken->protocol != "1" || host.is_v4()) && (taken->protocol != "2" || host.is_v6()));
  const auto again =
      extended_address_parse((host.is_v4() ? "|1|" : "|2|") + host.to_string() + "|" + std::to_string(port) + "|");
  must(again && again->target && same_host(again->target->host, host) && again->target->port == port);
}

}  // namespace
}  // namespace tarvex::server

void tarvex::fuzz::run(std::string_view bytes) {
  server::check_port(bytes);
  server::check_extended(bytes);
}
