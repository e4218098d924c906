// O_NONBLOCK belongs to the open file description, which a terminal or pipe shares with whoever else holds it: setting
// it would make the shell, or the program that started this one, lose its own lines. So pipes and terminals are opened
// anew for the one write; the kernel's list of descriptors leads to them.
#include "base/write_at_once.h"

#include "tarvex_common.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

namespace tarvex::server {

namespace {

std::size_t write_once(int fd, std::string_view bytes) {
  ssize_t written = 0;
  do {
    written = write(fd, bytes.data(), bytes.size());
  } while (written < 0 && errno == EINTR);
  return written < 0 ? 0 : static_cast<std::size_t>(written);
}

/// For what cannot be opened anew: without /proc, out of descriptors, or after a change of user. Between the look and
/// the write another process can fill the last room, so this is second best.
std::size_t write_when_ready(int fd, std::string_view bytes) {
  pollfd ready = {fd, POLLOUT, 0};
  return poll(&ready, 1, 0) == 1 && (ready.revents & POLLOUT) != 0 ? write_once(fd, bytes) : 0;
}

}  // namespace

std::size_t write_at_once(int fd, std::string_view bytes) {
  struct stat status = {};
  if (fstat(fd, &status) != 0) return 0;
  if (S_ISREG(status.st_mode)) return write_once(fd, bytes);
  if (S_ISSOCK(status.st_mode)) {
    const ssize_t sent = send(fd, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    return sent < 0 ? 0 : static_cast<std::size_t>(sent);
  }
  const std::string path = "/proc/self/fd/" + std::to_string(fd);
  const descriptor own(open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (own) return write_once(own.get(), bytes);
  return errno == ENXIO ? 0 : write_when_ready(fd, bytes);  // ENXIO: a pipe without a reader
}

}  // namespace tarvex::server
