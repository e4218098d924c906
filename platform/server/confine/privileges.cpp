#include "confine/privileges.h"

#include "base/log.h"

#include <fmt/core.h>
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <vector>

namespace tarvex::server {

namespace {

constexpr uid_t ROOT = 0;

struct user_identity {
  uid_t user;
  gid_t group;
};

std::optional<user_identity> find_user(const std::string& name) {
  std::vector<char> buffer(4096);
  passwd entry = {};
  passwd* found = nullptr;
  while (getpwnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found) == ERANGE)
    buffer.resize(2 * buffer.size());
  if (found == nullptr) return std::nullopt;
  return user_identity{found->pw_uid, found->pw_gid};
}

std::string privileges_failure(const std::string& user, const char* what) {
  return fmt::format("cannot become the user \"{}\": {}: {}", user, what, std::strerror(errno));
}

/// Whether what was given up is not to be had again.
bool given_up_for_good() {
  return setresuid(ROOT, ROOT, ROOT) != 0 && setresgid(ROOT, ROOT, ROOT) != 0;
}

}  // namespace

std::string privileges_mistake(const std::string& user) {
  if (geteuid() != ROOT || find_user(user)) return {};
  return fmt::format(
      "user in [security]: there is no user \"{}\" to become: make one (useradd --system --create-home {}), or name "
      "another",
      user, user);
}

bool user_exists(const std::string& user) {
  return find_user(user).has_value();
}

std::string privileges_give_up(const std::string& user) {
  if (geteuid() != ROOT) return {};
  const std::optional<user_identity> wanted = find_user(user);
  if (!wanted) return privileges_mistake(user);
  if (wanted->user == ROOT) {
    log_warning("sessions run as root, as [security] wants it: whoever takes one over has the machine");
    return {};
  }
  if (initgroups(user.c_str(), wanted->group) != 0) return privileges_failure(user, "its groups cannot be taken");
  if (setresgid(wanted->group, wanted->group, wanted->group) != 0) return privileges_failure(user, "setresgid");
  if (setresuid(wanted->user, wanted->user, wanted->user) != 0) return privileges_failure(user, "setresuid");
  return given_up_for_good() ? "" : fmt::format("cannot become the user \"{}\": root is still to be had", user);
}

}  // namespace tarvex::server
