#include "base/durable_file.h"

#include "tarvex_common.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace tarvex::server {

bool file_write_whole(int file, std::string_view content) {
  for (std::size_t at = 0; at < content.size();) {
    const ssize_t count = pwrite(file, content.data() + at, content.size() - at, static_cast<off_t>(at));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return false;
    at += static_cast<std::size_t>(count);
  }
  return true;
}

bool folder_sync(const std::string& folder) {
  const descriptor opened(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return opened && fsync(opened.get()) == 0;
}

}  // namespace tarvex::server
