// One row for each key: its table, its type, and how it is read. What involves several keys comes after all rows.
#include "config/configuration.h"

#include "config/setting_text.h"
#include "config/toml_file.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <filesystem>
#include <limits>

namespace tarvex::server {

namespace {

constexpr std::int64_t LARGEST_SIZE = std::numeric_limits<std::int64_t>::max();

/// A value on its way into the configuration.
struct reading {
  configuration& out;
  mistake_list& mistakes;
  const toml_value& value;
  std::string where;  ///< "key in [table]"

  void refuse(const std::string& expected) const {
    mistakes.add(value.line, where + ": expected " + expected + ", found " + toml_describe(value));
  }
};

template <auto field>
void read_text(const reading& in) {
  in.out.*field = in.value.text;
}

template <auto field>
void read_flag(const reading& in) {
  in.out.*field = in.value.flag;
}

template <auto field, std::int64_t lowest, std::int64_t highest>
void read_number(const reading& in) {
  if (in.value.integer < lowest || in.value.integer > highest) {
    return in.refuse("a number from " + std::to_string(lowest) + " to " + std::to_string(highest));
  }
  using field_type = std::remove_reference_t<decltype(in.out.*field)>;
  in.out.*field = static_cast<field_type>(in.value.integer);
}

/// What keeps `path` from being used; empty when nothing does.
std::string path_error(const std::string& path, bool folder) {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0) return std::strerror(errno);
  if (S_ISDIR(status.st_mode) != folder) return folder ? "it is no folder" : "it is a folder";
  return access(path.c_str(), folder ? W_OK | X_OK : R_OK) == 0 ? "" : std::strerror(errno);
}

template <auto field, bool folder>
void read_path(const reading& in) {
  if (in.value.text.empty()) return in.refuse(folder ? "the path of a folder" : "the path of a file");
  const std::string path = path_beside(in.mistakes.file, in.value.text);
  const std::string error = path_error(path, folder);
  if (!error.empty()) return in.mistakes.add(in.value.line, in.where + ": \"" + path + "\" cannot be used: " + error);
  in.out.*field = path;
}

template <auto field>
void read_base_url(const reading& in) {
  in.out.*field = in.value.text;
  if (!is_base_url(in.value.text)) in.refuse("http://HOST[:PORT] or https://HOST[:PORT] and nothing after it");
}

void read_listen(const reading& in) {
  if (in.value.items.empty()) in.mistakes.add(in.value.line, in.where + ": name at least one address");
  for (const toml_value& item : in.value.items) {
    if (!toml_expect(toml_kind::text, item, in.where, in.mistakes)) continue;
    if (const auto address = listen_address_parse(item.text)) {
      in.out.listen.push_back(*address);
    } else {
      in.mistakes.add(item.line,
                      in.where + ": expected \"IPv4:PORT\" or \"[IPv6]:PORT\", found " + toml_describe(item));
    }
  }
}

void read_data_ports(const reading& in) {
  constexpr std::int64_t LOWEST = 1024;
  constexpr std::int64_t HIGHEST = 65535;
  const std::vector<toml_value>& ends = in.value.items;
  const bool numbers = ends.size() == 2 && ends[0].kind == toml_kind::integer && ends[1].kind == toml_kind::integer;
  if (!numbers || ends[0].integer < LOWEST || ends[1].integer > HIGHEST || ends[0].integer > ends[1].integer) {
    in.mistakes.add(in.value.line,
                    in.where + ": expected [LOWEST, HIGHEST], two ports from 1024 to 65535 in rising order");
    return;
  }
  in.out.data_ports.emplace(static_cast<std::uint16_t>(ends[0].integer), static_cast<std::uint16_t>(ends[1].integer));
}

void read_passive_address(const reading& in) {
  in.out.passive_address = in.value.text;
  if (!is_ipv4_address(in.value.text)) in.refuse("a numeric IPv4 address");
}

void read_dsi(const reading& in) {
  if (!is_symbol_part(in.value.text)) return in.refuse("a name of letters, digits and \"_\"");
  in.out.storage_dsi = in.value.text;
}

void read_settings(const reading& in) {
  for (const auto& [key, value] : in.value.members) {
    const std::string where = key + " in [storage.settings]";
    in.out.lines["storage.settings." + key] = value.line;
    if (!toml_expect(toml_kind::integer, value, where, in.mistakes)) continue;
    if (value.integer < INT_MIN || value.integer > INT_MAX) {
      in.mistakes.add(value.line, where + ": " + toml_describe(value) + " does not fit into 32 bits");
    } else if (!is_symbol_part(key)) {
      in.mistakes.add(value.line, where + ": a setting's name has letters, digits and \"_\" only");
    } else {
      in.out.storage_settings[key] = static_cast<int>(value.integer);
    }
  }
}

using c = configuration;
struct setting_row {
  std::string_view table;
  std::string_view key;
  toml_kind kind;
  void (*read)(const reading& in);
};
constexpr setting_row ROWS[] = {
    {"server", "listen", toml_kind::list, read_listen},
    {"server", "data_ports", toml_kind::list, read_data_ports},
    {"server", "passive_address", toml_kind::text, read_passive_address},
    {"server", "allow_plaintext_login", toml_kind::flag, read_flag<&c::allow_plaintext_login>},
    {"server", "max_sessions", toml_kind::integer, read_number<&c::max_sessions, 1, 100000>},
    {"server", "idle_timeout", toml_kind::integer, read_number<&c::idle_timeout_s, 1, 86400>},
    {"server", "update_interval", toml_kind::integer, read_number<&c::update_interval_s, 0, 3600>},
    {"server", "spool_directory", toml_kind::text, read_path<&c::spool_directory, true>},
    {"server", "spool_limit", toml_kind::integer, read_number<&c::spool_limit_bytes, 0, LARGEST_SIZE>},
    {"tls", "certificate", toml_kind::text, read_path<&c::tls_certificate, false>},
    {"tls", "key", toml_kind::text, read_path<&c::tls_key, false>},
    {"accounts", "file", toml_kind::text, read_path<&c::accounts_file, false>},
    {"storage", "dsi", toml_kind::text, read_dsi},
    {"storage", "library", toml_kind::text, read_text<&c::storage_library>},
    {"storage", "policy", toml_kind::text, read_text<&c::storage_policy>},
    {"storage", "settings", toml_kind::table, read_settings},
    {"box", "api_base", toml_kind::text, read_base_url<&c::box_api_base>},
    {"box", "upload_base", toml_kind::text, read_base_url<&c::box_upload_base>},
    {"box", "ca_file", toml_kind::text, read_path<&c::box_ca_file, false>},
};

/// The names in `member` of all rows whose table is `table` (of all rows when that is empty).
std::vector<std::string_view> known_names(std::string_view setting_row::*member, std::string_view table) {
  std::vector<std::string_view> names;
  for (const setting_row& row : ROWS) {
    if (table.empty() || row.table == table) names.push_back(row.*member);
  }
  return names;
}

void read_key(const std::string& table, const std::string& key, const toml_value& value, configuration& out,
              mistake_list& mistakes) {
  const auto row = std::find_if(std::begin(ROWS), std::end(ROWS), [&](const setting_row& candidate) {
    return candidate.table == table && candidate.key == key;
  });
  if (row == std::end(ROWS)) {
    mistakes.add(value.line, "unknown key \"" + key + "\" in [" + table + "]" +
                                 toml_suggestion(key, known_names(&setting_row::key, table)));
    return;
  }
  const std::string where = key + " in [" + table + "]";
  out.lines[table + "." + key] = value.line;
  if (toml_expect(row->kind, value, where, mistakes)) row->read({out, mistakes, value, where});
}

void read_table(const std::string& table, const toml_value& value, configuration& out, mistake_list& mistakes) {
  const std::vector<std::string_view> tables = known_names(&setting_row::table, "");
  if (std::find(tables.begin(), tables.end(), table) == tables.end()) {
    const char* const what = value.kind == toml_kind::table ? "unknown table [" : "unknown key outside any table [";
    mistakes.add(value.line, what + table + "]" + toml_suggestion(table, tables));
    return;
  }
  out.lines[table] = value.line;
  if (!toml_expect(toml_kind::table, value, table, mistakes)) return;
  for (const auto& [key, member] : value.members) read_key(table, key, member, out, mistakes);
}

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
  const std::string error = tls_files_error(config.tls_certificate, config.tls_key);
  if (!error.empty()) mistakes.add(config.lines.at("tls"), "[tls]: " + error);
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

std::string mistake_text(const configuration_mistake& mistake) {
  return mistake.file + ":" + (mistake.line == 0 ? "" : std::to_string(mistake.line) + ":") + " " + mistake.text;
}

unsigned configuration_line(const configuration& config, const std::string& name) {
  const auto found = config.lines.find(name);
  return found == config.lines.end() ? 0 : found->second;
}

std::vector<configuration_mistake> configuration_load(const std::string& file, configuration& out) {
  mistake_list mistakes{file, {}};
  toml_value root;
  if (!toml_read(mistakes, root)) return std::move(mistakes).sorted();
  for (const auto& [table, value] : root.members) read_table(table, value, out, mistakes);
  if (!is_set(out, "server.listen")) out.listen = {{"127.0.0.1", 2811}};
  require(out, "accounts", "file", mistakes);
  check_tls(out, mistakes);
  out.storage_library = library_path(file, out);
  return std::move(mistakes).sorted();
}

}  // namespace tarvex::server
