#pragma once

#include "config/configuration.h"
#include "confine/file_access.h"
#include "confine/system_calls.h"

#include <string>
#include <vector>

namespace tarvex::server {

/// How a session process confines itself before it talks to anybody: no new privileges, Landlock, seccomp.
class sandbox {
 public:
  /// Finds out what the kernel has; once, before any session. Warns in the log of what is missing.
  /// \return why nobody may be served (`require`, and something is missing); empty: go on.
  [[nodiscard]] std::string prepare(sandbox_mode mode);

  /// Confines the calling process, for good. A process with one thread.
  /// \return what went wrong; the session must not go on then. Empty: it is confined as far as `prepare` promised.
  [[nodiscard]] std::string enter(const std::vector<accessible_place>& places) const;

  [[nodiscard]] sandbox_mode mode() const { return mode_; }

 private:
  sandbox_mode mode_ = sandbox_mode::off;
  bool filters_calls_ = false;
  bool confines_files_ = false;
  system_calls calls_;
};

}  // namespace tarvex::server
