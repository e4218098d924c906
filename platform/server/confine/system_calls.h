#pragma once

#include <linux/filter.h>

#include <string>
#include <vector>

namespace tarvex::server {

/// The list of system calls that a confined process may make (seccomp(2)); all others fail with EPERM. No new
/// programs, no new processes, no look into others, no sockets but of IPv4, IPv6 and the kernel's routing table.
class system_calls {
 public:
  /// Compiles the list, once for all processes that will use it. \return what went wrong; empty: nothing.
  [[nodiscard]] std::string compile();

  /// Confines the calling process to the list, for good. It may signal nobody but itself. Needs PR_SET_NO_NEW_PRIVS. A
  /// process with one thread. \return errno; 0: done.
  [[nodiscard]] int confine() const;

 private:
  std::vector<sock_filter> program_;
};

}  // namespace tarvex::server
