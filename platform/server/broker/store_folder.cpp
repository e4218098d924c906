#include "broker/store_folder.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace tarvex::server {

namespace {

std::string make_folder(const std::string& folder, const std::string& user) {
  if (mkdir(folder.c_str(), S_IRWXU) != 0) return errno == EEXIST ? "" : store_failure(folder, "cannot be made");
  const passwd* const entry = geteuid() == 0 ? getpwnam(user.c_str()) : nullptr;
  if (entry != nullptr && chown(folder.c_str(), entry->pw_uid, entry->pw_gid) != 0)
    return store_failure(folder, "cannot be given to the broker's user");
  return {};
}

std::string check_folder(const std::string& folder) {
  struct stat status = {};
  if (stat(folder.c_str(), &status) != 0) return store_failure(folder, "cannot be looked at");
  if (!S_ISDIR(status.st_mode)) return folder + " is no folder";
  if (geteuid() != 0 && status.st_uid != geteuid()) return folder + " belongs to another user";
  if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0 && chmod(folder.c_str(), S_IRWXU) != 0)
    return store_failure(folder, "may be entered by others, and cannot be closed to them");
  return {};
}

}  // namespace

std::string store_failure(const std::string& path, const char* what) {
  return path + ": " + what + ": " + std::strerror(errno);
}

bool store_folder_give(const std::string& folder, int file) {
  struct stat status = {};
  if (geteuid() != 0) return true;
  return stat(folder.c_str(), &status) == 0 && fchown(file, status.st_uid, status.st_gid) == 0;
}

std::string store_folder_open(const std::string& folder, const std::string& user) {
  if (std::string error = make_folder(folder, user); !error.empty()) return error;
  return check_folder(folder);
}

}  // namespace tarvex::server
