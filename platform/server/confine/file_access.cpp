// Landlock by system call: glibc has no wrappers, and the kernel headers of Debian 12 know less than newer kernels do.
#include "confine/file_access.h"

#include "tarvex_common.hpp"

#include <fcntl.h>
#include <linux/landlock.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace tarvex::server {

namespace {

// What later versions than the header's have added (linux/landlock.h of Linux 6.12).
constexpr std::uint64_t ACCESS_TRUNCATE = 1U << 14;
constexpr std::uint64_t ACCESS_IOCTL_DEVICE = 1U << 15;
constexpr std::uint64_t SCOPE_ABSTRACT_SOCKET = 1U << 0;
constexpr std::uint64_t SCOPE_SIGNAL = 1U << 1;

struct ruleset_attributes {
  std::uint64_t files;
  std::uint64_t network;
  std::uint64_t scoped;
};

/// What a version of the kernel's can deny, besides what the versions before it could.
struct version_row {
  int version;
  std::uint64_t files;
  std::uint64_t scoped;
  std::size_t size;  ///< of the attributes as that version knows them
};
constexpr std::uint64_t FIRST_FILES = (LANDLOCK_ACCESS_FS_MAKE_SYM << 1) - 1;
constexpr version_row VERSIONS[] = {
    {1, FIRST_FILES, 0, 8}, {2, LANDLOCK_ACCESS_FS_REFER, 0, 8}, {3, ACCESS_TRUNCATE, 0, 8},
    {4, 0, 0, 16},          {5, ACCESS_IOCTL_DEVICE, 0, 16},     {6, 0, SCOPE_ABSTRACT_SOCKET | SCOPE_SIGNAL, 24},
};

constexpr std::uint64_t READING = LANDLOCK_ACCESS_FS_READ_FILE | LANDLOCK_ACCESS_FS_READ_DIR;
constexpr std::uint64_t WRITING = LANDLOCK_ACCESS_FS_WRITE_FILE | ACCESS_TRUNCATE | LANDLOCK_ACCESS_FS_MAKE_REG |
                                  LANDLOCK_ACCESS_FS_REMOVE_FILE | LANDLOCK_ACCESS_FS_MAKE_DIR;
constexpr std::uint64_t OF_A_FILE = LANDLOCK_ACCESS_FS_READ_FILE | LANDLOCK_ACCESS_FS_WRITE_FILE | ACCESS_TRUNCATE;

bool is_open_folder(const descriptor& place) {
  struct stat status = {};
  return fstat(place.get(), &status) == 0 && S_ISDIR(status.st_mode);
}

/// \return errno
int add_place(const descriptor& ruleset, const accessible_place& place, std::uint64_t denied) {
  const descriptor opened(open(place.path.c_str(), O_PATH | O_CLOEXEC));
  if (!opened) return 0;
  std::uint64_t allowed = (READING | (place.writable ? WRITING : 0)) & denied;
  if (!is_open_folder(opened)) allowed &= OF_A_FILE;
  const landlock_path_beneath_attr rule = {.allowed_access = allowed, .parent_fd = opened.get()};
  return syscall(SYS_landlock_add_rule, ruleset.get(), LANDLOCK_RULE_PATH_BENEATH, &rule, 0) == 0 ? 0 : errno;
}

}  // namespace

int file_access_version() {
  const long version = syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION);
  return version > 0 ? static_cast<int>(version) : 0;
}

int file_access_confine(const std::vector<accessible_place>& places) {
  const int version = file_access_version();
  if (version == 0) return ENOSYS;
  ruleset_attributes denied = {};
  std::size_t size = 0;
  for (const version_row& row : VERSIONS) {
    if (row.version > version) break;
    denied.files |= row.files;
    denied.scoped |= row.scoped;
    size = row.size;
  }
  const descriptor ruleset(static_cast<int>(syscall(SYS_landlock_create_ruleset, &denied, size, 0)));
  if (!ruleset) return errno;
  for (const accessible_place& place : places) {
    if (const int error = add_place(ruleset, place, denied.files); error != 0) return error;
  }
  return syscall(SYS_landlock_restrict_self, ruleset.get(), 0) == 0 ? 0 : errno;
}

}  // namespace tarvex::server
