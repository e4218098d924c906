#include "config/box_check.h"

#include "tarvex_common.hpp"

#include <fmt/core.h>
#include <jansson.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

namespace tarvex::server {

namespace {

constexpr const char* BOX = "box";

constexpr const char* POLICY_RATE = "user_api_rate_limit";

/// What is wrong with a policy; empty when nothing is. A policy need not name a rate.
std::string policy_error(const std::string& policy) {
  json_error_t error = {};
  const owner<json_t, json_decref> parsed(json_loads(policy.c_str(), 0, &error));
  if (parsed == nullptr) return fmt::format("this is no JSON ({})", error.text);
  if (!json_is_object(parsed.get())) return "expected a JSON object";
  const json_t* const rate = json_object_get(parsed.get(), POLICY_RATE);
  if (rate == nullptr || (json_is_integer(rate) && json_integer_value(rate) > 0)) return {};
  return fmt::format("expected {} to be a number of requests per second from 1 up", POLICY_RATE);
}

/// The plug-in takes the directory from the password database too, and not from the environment.
std::string home_directory() {
  std::vector<char> buffer(4096);
  passwd entry = {};
  passwd* found = nullptr;
  while (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) == ERANGE) buffer.resize(2 * buffer.size());
  return found == nullptr || found->pw_dir == nullptr ? "" : found->pw_dir;
}

/// Why files cannot be made in a directory; empty when they can.
std::string directory_error(const std::string& path) {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0) return std::strerror(errno);
  if (!S_ISDIR(status.st_mode)) return std::strerror(ENOTDIR);
  return access(path.c_str(), W_OK | X_OK) == 0 ? "" : std::strerror(errno);
}

}  // namespace

void box_check(const configuration& config, mistake_list& mistakes) {
  if (config.storage_dsi != BOX) return;
  if (!config.storage_policy) return;
  const std::string error = policy_error(*config.storage_policy);
  if (!error.empty()) mistakes.add(configuration_line(config, "storage.policy"), "policy in [storage]: " + error);
}

std::string box_folder() {
  const std::string home = home_directory();
  return home.empty() ? "" : home + "/.tarvex";
}

std::string box_pacing_warning(const configuration& config) {
  if (config.storage_dsi != BOX) return {};
  const std::string home = home_directory();
  const std::string directory = home + "/.tarvex";
  // The plug-in makes the directory where it is missing; then the home directory has to let it.
  const bool missing = access(directory.c_str(), F_OK) != 0 && errno == ENOENT;
  const std::string& needed = missing ? home : directory;
  const std::string error = directory_error(needed);
  if (error.empty()) return {};
  return fmt::format("requests to Box are paced by nobody: {} cannot be used: {}{}", directory,
                     missing ? needed + ": " : "", error);
}

}  // namespace tarvex::server
