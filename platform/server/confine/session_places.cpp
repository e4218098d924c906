#include "confine/session_places.h"

#include "config/box_check.h"

#include <cstdlib>
#include <filesystem>
#include <utility>

namespace tarvex::server {

namespace {

/// libcurl's and OpenSSL's settings and authorities, the resolver's, the password database (for the home directory),
/// times of day, and the libraries that the resolver loads by name.
constexpr const char* SYSTEM_PLACES[] = {
    "/etc/ssl",
    "/etc/pki",
    "/usr/lib/ssl",
    "/usr/share/ca-certificates",
    "/usr/local/share/ca-certificates",
    "/etc/resolv.conf",
    "/run/systemd/resolve",
    "/etc/hosts",
    "/etc/host.conf",
    "/etc/nsswitch.conf",
    "/etc/gai.conf",
    "/etc/services",
    "/etc/passwd",
    "/etc/localtime",
    "/usr/share/zoneinfo",
    "/etc/ld.so.cache",
    "/lib",
    "/lib64",
    "/usr/lib",
    "/usr/lib64",
    "/dev/null",
    "/dev/urandom",
};
/// Where OpenSSL looks for authorities instead.
constexpr const char* AUTHORITY_VARIABLES[] = {"SSL_CERT_FILE", "SSL_CERT_DIR"};

std::string environment_value(const char* name) {
  const char* const value = std::getenv(name);
  return value == nullptr ? "" : value;
}

/// As the spool has it.
std::string spool_folder(const configuration& config) {
  if (!config.spool_directory.empty()) return config.spool_directory;
  const std::string named = environment_value("TMPDIR");
  return named.empty() ? "/var/tmp" : named;
}

/// The folder of the file in "LEVELS,FILE,SWITCHES"; empty: the trace goes to standard error, or nowhere.
std::string trace_folder() {
  const std::string value = environment_value("TARVEX_BOX_DEBUG");
  const std::size_t start = value.find(',');
  if (start == std::string::npos) return {};
  const std::string file = value.substr(start + 1, value.find(',', start + 1) - start - 1);
  return file.empty() ? "" : std::filesystem::absolute(file).parent_path().string();
}

}  // namespace

std::vector<accessible_place> session_places(const configuration& config) {
  std::vector<accessible_place> places;
  const auto add = [&places](std::string path, bool writable) {
    if (!path.empty()) places.push_back({std::move(path), writable});
  };
  for (const char* const path : SYSTEM_PLACES) add(path, false);
  for (const char* const name : AUTHORITY_VARIABLES) add(environment_value(name), false);
  add(config.box_ca_file, false);
  add(spool_folder(config), true);
  add(box_folder(), true);
  add(trace_folder(), true);
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  add("/proc", false);  // the sanitizers look at their own process
#endif
  return places;
}

}  // namespace tarvex::server
