#include "base/regular_file.h"

#include "tarvex_common.hpp"

#include <fcntl.h>
#include <fmt/core.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace tarvex::server {

namespace {

constexpr std::size_t PIECE_BYTES = 64 * 1024;

file_failure system_failure(const char* what, int error) {
  return {error, fmt::format("cannot be {}: {}", what, std::strerror(error))};
}

/// The file is looked at through its descriptor: by its name it could be another one by now.
std::optional<file_failure> open_checked(const std::string& path, file_trust trust, descriptor& out) {
  // Without O_NONBLOCK the opening of a FIFO waits until somebody writes into it.
  out = descriptor(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!out) return system_failure("opened", errno);
  struct stat status = {};
  if (fstat(out.get(), &status) != 0) return system_failure("looked at", errno);
  if (S_ISDIR(status.st_mode)) return system_failure("read", EISDIR);
  if (!S_ISREG(status.st_mode)) return file_failure{EINVAL, "is no regular file"};
  if (trust == file_trust::owner_only && (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    return file_failure{EPERM, fmt::format("may be written by others than its owner (mode {:04o}); chmod go-w it",
                                           status.st_mode & 07777U)};
  }
  return std::nullopt;
}

}  // namespace

std::optional<file_failure> regular_file_check(const std::string& path, file_trust trust) {
  descriptor file;
  return open_checked(path, trust, file);
}

std::optional<file_failure> regular_file_read(const std::string& path, file_trust trust, std::size_t limit_mib,
                                              std::string& content) {
  descriptor file;
  if (auto failure = open_checked(path, trust, file)) return failure;
  std::string text;
  std::size_t length = 0;
  for (;;) {
    // The size that the file had a moment ago is no promise: it may be growing.
    if (length == text.size()) text.resize(length + PIECE_BYTES);
    const ssize_t got = read(file.get(), text.data() + length, text.size() - length);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return system_failure("read", errno);
    if (got == 0) break;
    length += static_cast<std::size_t>(got);
    if (length > limit_mib << 20) return file_failure{EFBIG, fmt::format("is larger than {} MiB", limit_mib)};
  }
  text.resize(length);
  content = std::move(text);
  return std::nullopt;
}

}  // namespace tarvex::server
