#include "service_manager.h"

#include <systemd/sd-daemon.h>

#include <cstdint>
#include <cstdlib>
#include <ctime>

namespace tarvex::server {

std::vector<handed_socket> service_sockets() {
  std::vector<handed_socket> sockets;
  char** names = nullptr;
  const int count = sd_listen_fds_with_names(1, &names);
  for (int i = 0; i < count; ++i) {
    const c_string name(names != nullptr ? names[i] : nullptr);
    sockets.push_back({descriptor(SD_LISTEN_FDS_START + i), name ? name.get() : ""});
  }
  std::free(names);
  return sockets;
}

// Nobody is there to hear of a failure to tell: the service manager finds out by its own time-outs.

void service_ready() {
  (void)sd_notify(0, "READY=1");
}

void service_reloading() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const auto microseconds =
      static_cast<std::uint64_t>(now.tv_sec) * 1'000'000U + static_cast<std::uint64_t>(now.tv_nsec) / 1000U;
  (void)sd_notifyf(0, "RELOADING=1\nMONOTONIC_USEC=%llu", static_cast<unsigned long long>(microseconds));
}

void service_stopping() {
  (void)sd_notify(0, "STOPPING=1");
}

std::chrono::milliseconds service_watchdog_interval() {
  std::uint64_t microseconds = 0;
  if (sd_watchdog_enabled(0, &microseconds) <= 0) return {};
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::microseconds(microseconds / 2));
}

void service_alive() {
  (void)sd_notify(0, "WATCHDOG=1");
}

}  // namespace tarvex::server
