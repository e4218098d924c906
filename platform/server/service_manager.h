#pragma once

#include "tarvex_common.hpp"

#include <chrono>
#include <string>
#include <vector>

namespace tarvex::server {

/// What the service manager (systemd) and the listener tell each other. Nothing happens where there is none.

/// A listening socket that the service manager holds and hands over: it stays open when this program ends, so that
/// connections wait for the next one.
struct handed_socket {
  descriptor socket;
  std::string name;  ///< FileDescriptorName= of the socket unit
};

/// The sockets that were handed over (sd_listen_fds(3)), once: to call it again brings none. Other descriptors of the
/// kind that was handed over are among them.
[[nodiscard]] std::vector<handed_socket> service_sockets();

/// Says that connections are taken.
void service_ready();
/// Says that the configuration is read anew; `service_ready` ends that.
void service_reloading();
void service_stopping();

/// How often to give a sign of life; 0: none is wanted.
[[nodiscard]] std::chrono::milliseconds service_watchdog_interval();
void service_alive();

}  // namespace tarvex::server
