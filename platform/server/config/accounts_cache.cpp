#include "config/accounts_cache.h"

#include "base/log.h"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <utility>

namespace tarvex::server {

namespace {

/// Two writes within one tick of the file system's clock have the same date: a file that was read sooner after its last
/// change than this is read again.
constexpr std::time_t SETTLING_S = 1;

bool same_time(const timespec& a, const timespec& b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

std::vector<std::string> folders_of(const account_map& accounts) {
  std::set<std::string> folders;
  for (const auto& [name, who] : accounts) folders.insert(std::filesystem::path(who.credential).parent_path().string());
  return {folders.begin(), folders.end()};
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

void accounts_cache::refresh() {
  const auto stamp = stamp_of(file_);
  if (readable_ && settled_ && stamp == stamp_) return;
  stamp_ = stamp;
  settled_ = stamp && std::time(nullptr) - stamp->changed.tv_sec > SETTLING_S;
  account_map read;
  auto mistakes = accounts_load(file_, read);
  take(std::move(mistakes), std::move(read));
}

void accounts_cache::take(std::vector<configuration_mistake> mistakes, account_map read) {
  whole_ = mistakes.empty();
  readable_ = std::none_of(mistakes.begin(), mistakes.end(), [](const auto& mistake) { return mistake.line == 0; });
  if (whole_) accounts_ = std::move(read);
  if (!readable_) accounts_.clear();
  credential_folders_ = folders_of(accounts_);
  std::string texts;
  for (const configuration_mistake& mistake : mistakes) texts += mistake_text(mistake) + "\n";
  if (texts == std::exchange(logged_, texts)) return;
  for (const configuration_mistake& mistake : mistakes) log_error("{}", mistake_text(mistake));
  if (!whole_) log_error("{}: {}", file_, readable_ ? "the accounts stay as they were" : "nobody can log in");
}

login_answer accounts_cache::authenticate(std::string_view name, const std::string& password) {
  refresh();
  return answer(accounts_authenticate(accounts_, name, password));
}

login_answer accounts_cache::authenticate_certificate(std::string_view name, const std::vector<std::string>& shown) {
  refresh();
  return answer(accounts_with_certificate(accounts_, name, shown));
}

login_answer accounts_cache::answer(const account* who) const {
  if (who != nullptr) return {login_verdict::accepted, who};
  return {whole_ ? login_verdict::refused : login_verdict::unavailable, nullptr};
}

}  // namespace tarvex::server
