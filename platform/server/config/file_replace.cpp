#include "config/file_replace.h"

#include "base/durable_file.h"
#include "tarvex_common.hpp"

#include <fcntl.h>
#include <fmt/core.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace tarvex::server {

namespace {

std::string replace_failure(const std::string& path, const char* what, int error) {
  return fmt::format("{} cannot be {}: {}", path, what, std::strerror(error));
}

/// A file that is removed unless it gets its final name.
class temporary_file {
 public:
  explicit temporary_file(std::string pattern)
      : path_(std::move(pattern)), file_(mkostemp(path_.data(), O_CLOEXEC)), error_(file_ ? 0 : errno) {}
  temporary_file(const temporary_file&) = delete;
  temporary_file& operator=(const temporary_file&) = delete;
  ~temporary_file() {
    if (file_ && !renamed_) unlink(path_.c_str());
  }

  /// As the file that it will replace; as it was made when there is none.
  std::string resemble(const std::string& other) const {
    struct stat status = {}, own = {};
    if (!file_) return replace_failure(path_, "made", error_);
    if (lstat(other.c_str(), &status) != 0) return errno == ENOENT ? "" : replace_failure(other, "looked at", errno);
    if (fstat(file_.get(), &own) != 0) return replace_failure(path_, "looked at", errno);
    const bool same = own.st_uid == status.st_uid && own.st_gid == status.st_gid;
    if (!same && fchown(file_.get(), status.st_uid, status.st_gid) != 0)
      return replace_failure(path_, fmt::format("given to the owner of {}", other).c_str(), errno);
    return fchmod(file_.get(), status.st_mode & 07777U) == 0 ? "" : replace_failure(path_, "given its mode", errno);
  }

  std::string fill(std::string_view content) const {
    const bool filled = file_write_whole(file_.get(), content) && fsync(file_.get()) == 0;
    return filled ? "" : replace_failure(path_, "written", errno);
  }

  std::string rename_to(const std::string& path) {
    if (std::rename(path_.c_str(), path.c_str()) != 0) return replace_failure(path, "replaced", errno);
    renamed_ = true;
    return {};
  }

 private:
  std::string path_;
  descriptor file_;
  int error_;
  bool renamed_ = false;
};

}  // namespace

std::string file_replace(const std::string& path, std::string_view content) {
  const std::filesystem::path target = std::filesystem::absolute(path);
  const std::string folder = target.parent_path().string();
  temporary_file beside((target.parent_path() / ("." + target.filename().string() + ".XXXXXX")).string());
  std::string error = beside.resemble(path);
  if (error.empty()) error = beside.fill(content);
  if (error.empty()) error = beside.rename_to(path);
  if (error.empty() && !folder_sync(folder)) error = replace_failure(folder, "written", errno);
  return error;
}

}  // namespace tarvex::server
