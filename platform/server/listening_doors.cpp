#include "listening_doors.h"

#include "listening_socket.h"
#include "service_manager.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

namespace tarvex::server {

namespace {

constexpr const char* IMPLICIT_NAME = "implicit";

using handed_sockets = std::vector<handed_socket>;

/// Takes the socket for the address out of those that were handed over. \return none when there is no such.
descriptor take_handed(handed_sockets& handed, const listen_address& address, bool implicit_tls) {
  const auto found = std::find_if(handed.begin(), handed.end(), [&](const handed_socket& candidate) {
    return candidate.socket && (candidate.name == IMPLICIT_NAME) == implicit_tls &&
           socket_local_address(candidate.socket) == address;
  });
  return found == handed.end() ? descriptor() : std::move(found->socket);
}

/// Nobody may wait in accept, whoever made the socket.
bool make_patient(const descriptor& socket) {
  const int flags = fcntl(socket.get(), F_GETFL);
  return flags >= 0 && fcntl(socket.get(), F_SETFL, flags | O_NONBLOCK) == 0;
}

std::string open_door(handed_sockets& handed, const listen_address& address, bool implicit_tls,
                      std::vector<listening_door>& out) {
  listening_door& door = out.emplace_back();
  door.implicit_tls = implicit_tls;
  std::string error;
  door.socket = take_handed(handed, address, implicit_tls);
  if (!door.socket) {
    error = listening_socket_open(address, door.socket);
  } else if (!make_patient(door.socket)) {
    error = std::strerror(errno);
  }
  return error.empty() ? "" : "cannot listen on " + listen_address_text(address) + ": " + error;
}

/// Whoever connected to one that nobody serves would wait for ever.
std::string left_over(const handed_sockets& handed) {
  for (const handed_socket& left : handed) {
    if (!left.socket) continue;
    return "the service manager hands over a socket at " + listen_address_text(socket_local_address(left.socket)) +
           " (\"" + left.name + "\"), which is no address of " +
           (left.name == IMPLICIT_NAME ? "implicit_listen in [tls]" : "listen in [server]");
  }
  return {};
}

}  // namespace

std::string listening_doors_open(const configuration& config, std::vector<listening_door>& out) {
  handed_sockets handed = service_sockets();
  for (const listen_address& address : config.listen) {
    if (std::string error = open_door(handed, address, false, out); !error.empty()) return error;
  }
  for (const listen_address& address : config.implicit_listen) {
    if (std::string error = open_door(handed, address, true, out); !error.empty()) return error;
  }
  return left_over(handed);
}

void listening_doors_announce(const std::vector<listening_door>& doors) {
  for (const listening_door& door : doors) {
    std::printf("listening on %s\n", listen_address_text(socket_local_address(door.socket)).c_str());
  }
  std::fflush(stdout);
}

}  // namespace tarvex::server
