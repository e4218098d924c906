#include "config/broker_check.h"

#include "config/secret_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>

namespace tarvex::server {

namespace {

/// Line of a key, or of the table when the key has its default.
unsigned line_of(const configuration& config, const char* key) {
  const unsigned line = configuration_line(config, key);
  return line == 0 ? configuration_line(config, "broker") : line;
}

struct secret_row {
  const char* key;
  const char* where;
  std::string (*path)(const configuration& config);
  std::string (*read)(const configuration& config, secret& out);
};
constexpr secret_row CLIENT_SECRET = {"box.client_secret_file", "client_secret_file in [box]",
                                      [](const configuration& config) { return config.box_client_secret_file; },
                                      client_secret_read};
constexpr secret_row STORE_KEY = {"broker.key_file", "key_file in [broker]", store_key_path, store_key_read};

void check_secret(const configuration& config, const secret_row& row, mistake_list& mistakes) {
  const std::string path = row.path(config);
  if (path.empty() && configuration_line(config, row.key) != 0) return;  // it is set, and its reader has spoken
  if (belongs_to_another(path)) return;
  secret ignored;
  const std::string error = row.read(config, ignored);
  if (error.empty()) return;
  mistakes.add(line_of(config, row.key), std::string(row.where) + ": " + error);
}

struct place_row {
  const char* key;
  const char* where;
  std::string configuration::*path;
};
constexpr place_row PLACES[] = {
    {"broker.directory", "directory in [broker]", &configuration::broker_directory},
    {"broker.key_file", "key_file in [broker]", &configuration::broker_key_file},
    {"box.client_secret_file", "client_secret_file in [box]", &configuration::box_client_secret_file},
};

void check_place(const configuration& config, const place_row& row, mistake_list& mistakes) {
  const std::string& path = config.*row.path;
  if (path.empty() || config.spool_directory.empty() || !lies_in(path, config.spool_directory)) return;
  mistakes.add(line_of(config, row.key),
               std::string(row.where) + ": " + path +
                   " lies in spool_directory of [server], where sessions may read and write; move one of them");
}

}  // namespace

bool lies_in(const std::string& path, const std::string& folder) {
  namespace fs = std::filesystem;
  const auto within = [](const fs::path& inner, const fs::path& outer) {
    return std::mismatch(outer.begin(), outer.end(), inner.begin(), inner.end()).first == outer.end();
  };
  std::error_code inner_error, outer_error;
  const fs::path inner = fs::weakly_canonical(path, inner_error);
  const fs::path outer = fs::weakly_canonical(folder, outer_error);
  return within(path, folder) || (!inner_error && !outer_error && within(inner, outer));
}

bool belongs_to_another(const std::string& path) {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0) return errno == EACCES;
  return status.st_uid != geteuid() && access(path.c_str(), R_OK) != 0;
}

void broker_check(const configuration& config, mistake_list& mistakes) {
  check_secret(config, CLIENT_SECRET, mistakes);
  if (config.broker_directory.empty()) return;
  check_secret(config, STORE_KEY, mistakes);
  for (const place_row& row : PLACES) check_place(config, row, mistakes);
}

}  // namespace tarvex::server
