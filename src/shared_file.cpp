#include "shared_file.h"

#include "error.h"
#include "tarvex_common.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <optional>

namespace tarvex::box {

namespace {

constexpr int OPEN_ATTEMPTS = 10;

/// Whether the file has that size; nothing when it cannot be told.
std::optional<bool> tarvex_l_box_size_is(int fd, size_t size) {
  struct stat status {};
  if (fstat(fd, &status) != 0) return std::nullopt;
  return status.st_size == static_cast<off_t>(size);
}

int tarvex_l_box_open(const std::string& path) {
  int fd = -1;
  for (int attempt = 0; fd == -1 && attempt < OPEN_ATTEMPTS; ++attempt) {
    fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  }
  struct stat status {};
  if (fd != -1 && (fstat(fd, &status) != 0 || status.st_uid != geteuid())) {
    close(fd);
    fd = -1;
  }
  return fd;
}

void* tarvex_l_box_map(int fd, size_t size) {
  void* const start = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  return start != MAP_FAILED ? start : nullptr;
}

/// Brings the locked file to its size and releases the lock. False: the file is closed and cannot be used; `fd` then
/// says what stays of it.
bool tarvex_l_box_initialise(int& fd, const shared_file_kind& kind) {
  const auto size = static_cast<off_t>(kind.size);
  while (ftruncate(fd, size) != 0) {
    // Told apart the odd way round on purpose: an interruption gives the file up and keeps its number, anything else
    // is tried again.
    if (errno != EINTR) continue;
    close(fd);
    return false;
  }
  if (void* const start = tarvex_l_box_map(fd, kind.prepared_size); start != nullptr) {
    if (kind.prepare != nullptr) kind.prepare(start);
    munmap(start, kind.prepared_size);
  }
  while (ftruncate(fd, size) != 0) {
    if (errno == EINTR) continue;
    close(fd);
    fd = -1;
    return false;
  }
  (void)shared_file_lock(fd, F_UNLCK, false);
  return true;
}

/// Waits for the file to have its size, making it so if nobody else does. False: it cannot be used.
bool tarvex_l_box_make_ready(int& fd, const shared_file_kind& kind) {
  static constexpr timespec SECOND = {.tv_sec = 1, .tv_nsec = 0};
  for (;;) {
    if (shared_file_lock(fd, F_WRLCK, false) == 0) {
      if (!tarvex_l_box_size_is(fd, kind.size).value_or(false)) return tarvex_l_box_initialise(fd, kind);
      (void)shared_file_lock(fd, F_UNLCK, false);
      return true;
    }
    const std::optional<bool> made = tarvex_l_box_size_is(fd, kind.size);
    if (made.value_or(false)) return true;
    // Another process is at it, or the lock cannot be had for now; only a cancelled session stops waiting.
    if (made.has_value()) (void)tarvex_sleep(&SECOND);
    if (!tarvex_cancel_requested()) continue;
    close(fd);
    fd = -1;
    return false;
  }
}

std::string tarvex_l_box_path(const char* directory_template, const char* name) {
  char* expanded = nullptr;
  const auto path_template = std::string(directory_template) + "/" + name;
  tarvex_result_release(tarvex_box_evaluate_path(path_template.c_str(), &expanded));
  const c_string path(expanded);
  return path ? path.get() : "";
}

int tarvex_l_box_open_ready(const char* directory_template, const char* name, const shared_file_kind& kind, int& fd) {
  const std::string path = tarvex_l_box_path(directory_template, name);
  if (path.empty()) return false;
  const size_t slash = path.rfind('/');
  require(slash != std::string::npos, "slash != NULL");
  directory_ensure(path.substr(0, slash).c_str());
  fd = tarvex_l_box_open(path);
  return fd != -1 && tarvex_l_box_make_ready(fd, kind);
}

/// One call of fcntl with a lock of the whole file.
struct lock_request {
  int fd;
  int command;
  short type;
};

int tarvex_l_box_lock_once(void* argument) {
  const auto& request = *static_cast<const lock_request*>(argument);
  struct flock lock {};
  lock.l_type = request.type;
  lock.l_whence = SEEK_SET;
  return fcntl(request.fd, request.command, &lock) == 0 ? 0 : errno;
}

}  // namespace

void directory_ensure(const char* path) {
  DIR* const directory = opendir(path);
  if (directory != nullptr) {
    closedir(directory);
  } else if (errno == ENOENT) {
    (void)mkdir(path, 0700);  // whatever needs it finds out
  }
}

shared_file shared_file_open(const char* directory_template, const char* name, const shared_file_kind& kind) noexcept {
  shared_file file;
  try {
    if (tarvex_l_box_open_ready(directory_template, name, kind, file.fd)) {
      file.start = tarvex_l_box_map(file.fd, kind.size);
    }
  } catch (...) {
    file.fd = -1;  // out of memory before the file was open
  }
  if (file.start == nullptr) file.start = std::calloc(1, kind.size);
  return file;
}

int shared_file_lock(int fd, short type, bool wait) noexcept {
  lock_request request = {.fd = fd, .command = wait ? F_SETLKW : F_SETLK, .type = type};
  if (wait) return tarvex_cancel_interruptible(tarvex_l_box_lock_once, &request);
  int code = EINTR;
  while (code == EINTR) code = tarvex_l_box_lock_once(&request);
  return code;
}

tarvex_result_t shared_file_lock_result(int fd, short type, bool wait) noexcept {
  const int code = shared_file_lock(fd, type, wait);
  return code == 0 ? tarvex::box::SUCCESS : error_system(code, "fnctl");  // misspelt on purpose
}

void shared_file_close(shared_file& file, size_t mapped) noexcept {
  if (file.fd == -1) {
    std::free(file.start);
  } else {
    munmap(file.start, mapped);
    close(file.fd);
  }
  file = {};
}

}  // namespace tarvex::box
