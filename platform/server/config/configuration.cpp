#include "config/configuration.h"

#include "config/box_check.h"
#include "config/broker_check.h"
#include "config/setting_readers.h"
#include "config/setting_rows.h"
#include "config/tls_files.h"
#include "config/toml_file.h"

#include <dlfcn.h>

#include <filesystem>
#include <utility>

namespace tarvex::server {

namespace {

constexpr std::uint16_t DEFAULT_PORT = 2811;

bool is_set(const configuration& config, const std::string& key) {
  return config.lines.count(key) != 0;
}

void require(const configuration& config, const std::string& table, const std::string& key, mistake_list& mistakes) {
  if (is_set(config, table + "." + key)) return;
  mistakes.add(configuration_line(config, table), key + " in [" + table + "] is missing");
}

void check_tls(const configuration& config, mistake_list& mistakes) {
  if (!is_set(config, "tls")) return;
  require(config, "tls", "certificate", mistakes);
  require(config, "tls", "key", mistakes);
  if (!mistakes.found.empty()) return;
  const std::string error = tls_files_error(config);
  if (!error.empty()) mistakes.add(config.lines.at("tls"), "[tls]: " + error);
}

/// A broker's accounts file may be missing, since it is made with the first account, or out of this process's sight.
void check_accounts(const configuration& config, mistake_list& mistakes) {
  require(config, "accounts", "file", mistakes);
  const std::string& file = config.accounts_file;
  if (file.empty()) return;
  const std::string error = path_error(file, false);
  if (error.empty()) return;
  std::error_code ignored;
  const bool missing = std::filesystem::symlink_status(file, ignored).type() == std::filesystem::file_type::not_found;
  if (!config.broker_directory.empty() && (missing || belongs_to_another(file))) return;
  mistakes.add(configuration_line(config, "accounts.file"),
               "file in [accounts]: \"" + file + "\" cannot be used: " + error);
}

/// What depends on other settings when it is not set.
void complete(const std::string& file, configuration& config) {
  constexpr const char* REVOKE = "revoke";
  constexpr const char* STORE = "broker";
  if (!is_set(config, "server.listen")) config.listen = {{boost::asio::ip::address_v4::loopback(), DEFAULT_PORT}};
  if (!is_set(config, "box.revoke_url"))
    config.box_revoke_url = config.box_token_url.substr(0, config.box_token_url.rfind('/') + 1) + REVOKE;
  if (is_set(config, "broker") && !is_set(config, "broker.directory"))
    config.broker_directory = path_beside(file, STORE);
}

/// Folder of the shared library (or program) that this code is part of; empty when it is not known.
std::filesystem::path own_folder() {
  Dl_info info = {};
  if (dladdr(reinterpret_cast<const void*>(&configuration_load), &info) == 0) return {};
  return std::filesystem::path(info.dli_fname).parent_path();
}

/// A name that is a file beside FILE is that file; else a bare name is looked for beside this library, and what is not
/// there is left to the dynamic loader's search.
std::string library_path(const std::string& file, const configuration& config) {
  const bool named = !config.storage_library.empty();
  const std::string name = named ? config.storage_library : "libtarvex_gridftp_server_" + config.storage_dsi + ".so";
  std::error_code ignored;
  const std::string beside_file = path_beside(file, name);
  if (named && std::filesystem::exists(beside_file, ignored)) return beside_file;
  if (name.find('/') != std::string::npos) return beside_file;
  const std::filesystem::path beside_library = own_folder() / name;
  return std::filesystem::exists(beside_library, ignored) ? beside_library.string() : name;
}

}  // namespace

unsigned configuration_line(const configuration& config, const std::string& name) {
  const auto found = config.lines.find(name);
  return found == config.lines.end() ? 0 : found->second;
}

std::vector<configuration_mistake> configuration_load(const std::string& file, configuration& out) {
  mistake_list mistakes{file, {}};
  const std::optional<toml::table> root = toml_read(mistakes, file_trust::anyone);
  if (!root) return std::move(mistakes).sorted();
  settings_read(*root, out, mistakes);
  complete(file, out);
  check_accounts(out, mistakes);
  check_tls(out, mistakes);
  box_check(out, mistakes);
  broker_check(out, mistakes);
  out.storage_library = library_path(file, out);
  return std::move(mistakes).sorted();
}

}  // namespace tarvex::server
