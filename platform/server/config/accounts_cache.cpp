#include "config/accounts_cache.h"

#include "base/log.h"

#include <sys/stat.h>

#include <utility>

namespace tarvex::server {

namespace {

/// Two writes within one tick of the file system's clock have the same date: a file that was read sooner after its last
/// change than this is read again.
constexpr std::time_t SETTLING_S = 1;

bool same_time(const timespec& a, const timespec& b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

}  // namespace

bool accounts_cache::file_stamp::operator==(const file_stamp& other) const {
  return device == other.device && inode == other.inode && size == other.size && same_time(modified, other.modified) &&
         same_time(changed, other.changed);
}

std::optional<accounts_cache::file_stamp> accounts_cache::stamp_of(const std::string& file) {
  struct stat status = {};
  if (stat(file.c_str(), &status) != 0) return std::nullopt;
  return file_stamp{status.st_dev, status.st_ino, status.st_size, status.st_mtim, status.st_ctim};
}

bool accounts_cache::refresh() {
  const auto stamp = stamp_of(file_);
  if (readable_ && settled_ && stamp == stamp_) return false;
  stamp_ = stamp;
  settled_ = stamp && std::time(nullptr) - stamp->changed.tv_sec > SETTLING_S;
  accounts_reading read = accounts_load(file_, broker_);
  readable_ = read.readable;
  log(read.mistakes);
  if (!readable_ || read.accounts == *accounts_) return false;
  accounts_ = std::make_shared<account_map>(std::move(read.accounts));
  return true;
}

void accounts_cache::log(const std::vector<configuration_mistake>& mistakes) {
  std::string texts;
  for (const configuration_mistake& mistake : mistakes) texts += mistake_text(mistake) + "\n";
  if (texts == std::exchange(logged_, texts)) return;
  for (const configuration_mistake& mistake : mistakes) log_error("{}", mistake_text(mistake));
  if (!readable_) log_error("{}: the accounts stay as they were", file_);
}

const account* accounts_cache::find(std::string_view name) const {
  const auto found = accounts_->find(name);
  return found == accounts_->end() ? nullptr : &found->second;
}

}  // namespace tarvex::server
