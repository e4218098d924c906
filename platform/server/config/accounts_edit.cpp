#include "config/accounts_edit.h"

#include "base/regular_file.h"
#include "config/account_keys.h"
#include "config/file_replace.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <thread>
#include <utility>

namespace tarvex::server {

namespace {

std::string lock_failure(const std::string& path, std::string_view what) {
  return fmt::format("{} {}: {}", path, what, std::strerror(errno));
}

/// What is to be read and replaced when a symbolic link is named: the file that it leads to.
std::string follow_links(const std::string& file, std::string& target) {
  std::error_code error;
  if (!std::filesystem::is_symlink(file, error)) {
    target = std::filesystem::absolute(file).string();
    return {};
  }
  target = std::filesystem::canonical(file, error).string();
  return error ? fmt::format("{} leads to a file that cannot be found: {}", file, error.message()) : "";
}

std::string lock_path(const std::string& file) {
  const std::filesystem::path path(file);
  return (path.parent_path() / ("." + path.filename().string() + ".lock")).string();
}

/// Who owns the accounts file is to lock it later too, whoever was the first.
void give_to_owner(const descriptor& lock, const std::string& file) {
  struct stat status = {};
  if (geteuid() != 0 || stat(file.c_str(), &status) != 0) return;
  if (fchown(lock.get(), status.st_uid, status.st_gid) != 0) return;  // root can lock it, and that is what counts now
}

std::string take_lock(const std::string& file, std::chrono::milliseconds patience, descriptor& out) {
  constexpr std::chrono::milliseconds PAUSE{20};
  const std::string path = lock_path(file);
  descriptor lock(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR));
  if (!lock) return lock_failure(path, "cannot be opened");
  give_to_owner(lock, file);
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK && errno != EINTR) return lock_failure(path, "cannot be locked");
    if (std::chrono::steady_clock::now() >= deadline)
      return fmt::format("{} is being changed by somebody else ({} is locked); try again", file, path);
    std::this_thread::sleep_for(PAUSE);
  }
  out = std::move(lock);
  return {};
}

std::string read_text(const std::string& file, std::string& out) {
  const auto failure = regular_file_read(file, file_trust::owner_only, TOML_LARGEST_MIB, out);
  if (!failure) return {};
  if (failure->error != ENOENT) return file + " " + failure->text;
  out.clear();
  return {};
}

}  // namespace

std::string accounts_edit::open(const std::string& file, std::chrono::milliseconds patience) {
  std::string error = follow_links(file, file_);
  if (error.empty()) error = take_lock(file_, patience, lock_);
  if (error.empty()) error = read_text(file_, text_);
  if (!error.empty()) lock_ = descriptor();
  before_ = text_;
  return error;
}

accounts_reading accounts_edit::accounts(bool broker) const {
  return accounts_parse(file_, text_, broker);
}

std::string accounts_edit::put(const std::string& name, const std::vector<toml_setting>& settings) {
  if (std::string error = account_name_error(name); !error.empty()) return error;
  const std::string error = toml_put(text_, name, settings);
  return error.empty() ? "" : file_ + ": " + error;
}

std::string accounts_edit::remove(const std::string& name) {
  const std::string error = toml_remove(text_, name);
  return error.empty() ? "" : file_ + ": " + error;
}

std::string accounts_edit::save() {
  const descriptor lock = std::move(lock_);  // until the end
  if (!lock) return "no accounts file is open";
  if (text_ == before_) return {};
  if (text_.size() > TOML_LARGEST_MIB << 20) return fmt::format("{} is larger than {} MiB", file_, TOML_LARGEST_MIB);
  std::string now;
  if (std::string error = read_text(file_, now); !error.empty()) return error;
  if (now != before_) return file_ + " was changed by somebody else meanwhile; try again";
  return file_replace(file_, text_);
}

}  // namespace tarvex::server
