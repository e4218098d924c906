#include "confine/sandbox.h"

#include "base/log.h"

#include <fmt/core.h>
#include <sys/prctl.h>

#include <cerrno>
#include <cstring>

namespace tarvex::server {

namespace {

std::string sandbox_failure(const char* what, int error) {
  return fmt::format("the session cannot confine itself: {}: {}", what, std::strerror(error));
}

}  // namespace

std::string sandbox::prepare(sandbox_mode mode) {
  mode_ = mode;
  filters_calls_ = confines_files_ = false;
  if (mode == sandbox_mode::off) return {};
  const std::string error = calls_.compile();
  filters_calls_ = error.empty();
  confines_files_ = file_access_version() > 0;
  std::string lack;
  if (!filters_calls_) lack = "system calls cannot be filtered (seccomp: " + error + ")";
  if (!confines_files_) lack += (lack.empty() ? "" : ", and ") + std::string("this kernel has no Landlock");
  if (lack.empty()) return {};
  if (mode == sandbox_mode::require) return lack + ", which sandbox = \"require\" in [security] wants";
  log_warning("sessions are not as confined as they could be: {}", lack);
  return {};
}

std::string sandbox::enter(const std::vector<accessible_place>& places) const {
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return sandbox_failure("PR_SET_NO_NEW_PRIVS", errno);
  if (confines_files_) {
    if (const int error = file_access_confine(places); error != 0) return sandbox_failure("Landlock", error);
  }
  if (filters_calls_) {
    if (const int error = calls_.confine(); error != 0) return sandbox_failure("seccomp", error);
  }
  return {};
}

}  // namespace tarvex::server
