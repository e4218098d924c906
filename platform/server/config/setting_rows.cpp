// One row for each key: its table, its name, and how it is read.
#include "config/setting_rows.h"

#include "base/text.h"
#include "config/setting_readers.h"
#include "config/suggestion.h"

#include <algorithm>
#include <array>
#include <limits>

namespace tarvex::server {

namespace {

constexpr std::int64_t LARGEST_SIZE = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t LEAST_WINDOW = 1 << 20;
constexpr std::int64_t LARGEST_WINDOW = std::int64_t{64} << 30;

using c = configuration;
struct setting_row {
  std::string_view table;
  std::string_view key;
  void (*read)(const setting_reading& in);
};
constexpr auto ROWS = std::to_array<setting_row>({
    {"server", "listen", read_listen<&c::listen>},
    {"server", "data_ports", read_data_ports},
    {"server", "passive_address", read_passive_address},
    {"server", "allow_plaintext_login", read_value<&c::allow_plaintext_login>},
    {"server", "max_sessions", read_number<&c::max_sessions, 1, 100000>},
    {"server", "idle_timeout", read_number<&c::idle_timeout_s, 1, 86400>},
    {"server", "grace_time", read_number<&c::grace_time_s, 0, 3600>},
    {"server", "update_interval", read_number<&c::update_interval_s, 0, 3600>},
    {"server", "end_grace_ms", read_number<&c::end_grace_ms, 0, 60000>},
    {"server", "spool_directory", read_path<&c::spool_directory, true>},
    {"server", "spool_limit", read_number<&c::spool_limit_bytes, 0, LARGEST_SIZE>},
    {"tls", "certificate", read_path<&c::tls_certificate, false>},
    {"tls", "key", read_path<&c::tls_key, false>},
    {"tls", "client_ca", read_path<&c::tls_client_ca, false>},
    {"tls", "ciphers", read_value<&c::tls_ciphers>},
    {"tls", "implicit_listen", read_listen<&c::implicit_listen>},
    {"tls", "require_close_notify", read_value<&c::tls_require_close_notify>},
    {"tls", "require_resumption", read_value<&c::tls_require_resumption>},
    {"accounts", "file", read_named_path<&c::accounts_file>},
    {"storage", "dsi", read_dsi},
    {"storage", "library", read_value<&c::storage_library>},
    {"storage", "policy", read_value<&c::storage_policy>},
    {"storage", "settings", read_storage_settings},
    {"box", "api_base", read_base_url<&c::box_api_base>},
    {"box", "upload_base", read_base_url<&c::box_upload_base>},
    {"box", "ca_file", read_path<&c::box_ca_file, false>},
    {"box", "proxy", read_proxy},
    {"box", "authorize_url", read_private_url<&c::box_authorize_url>},
    {"box", "token_url", read_private_url<&c::box_token_url>},
    {"box", "revoke_url", read_private_url<&c::box_revoke_url>},
    {"box", "client_id", read_value<&c::box_client_id>},
    {"box", "client_secret_file", read_named_path<&c::box_client_secret_file>},
    {"box", "redirect", read_private_url<&c::box_redirect>},
    {"broker", "directory", read_named_path<&c::broker_directory>},
    {"broker", "key_file", read_named_path<&c::broker_key_file>},
    {"broker", "encryption", read_encryption},
    {"broker", "user", read_user<&c::broker_user>},
    {"broker", "idle_renewal", read_number<&c::broker_idle_renewal_s, 60, 5184000>},
    {"limits", "sessions_per_account", read_number<&c::sessions_per_account, 0, 100000>},
    {"limits", "sessions_per_address", read_number<&c::sessions_per_address, 0, 100000>},
    {"limits", "connections_per_minute", read_number<&c::connections_per_minute, 0, 1000000>},
    {"limits", "wrong_passwords", read_number<&c::wrong_passwords, 0, 1000000>},
    {"limits", "wrong_passwords_window", read_number<&c::wrong_passwords_window_s, 1, 86400>},
    {"limits", "login_timeout", read_number<&c::login_timeout_s, 1, 3600>},
    {"limits", "line_length", read_number<&c::line_length, 512, 65536>},
    {"limits", "stalled_timeout", read_number<&c::stalled_timeout_s, 1, 86400>},
    {"limits", "spool_memory_bytes", read_number<&c::spool_memory_bytes, 0, LARGEST_SIZE>},
    {"limits", "spool_disk_bytes", read_number<&c::spool_disk_bytes, 0, LARGEST_SIZE>},
    {"limits", "data_streams", read_number<&c::data_streams, 1, 256>},
    {"limits", "window_bytes", read_number<&c::window_bytes, LEAST_WINDOW, LARGEST_WINDOW>},
    {"limits", "window_bytes_total", read_number<&c::window_bytes_total, 0, LARGEST_SIZE>},
    {"security", "user", read_user<&c::user>},
    {"security", "sandbox", read_sandbox},
});

/// The names in `member` of all rows whose table is `table` (of all rows when that is empty).
std::vector<std::string_view> known_names(std::string_view setting_row::*member, std::string_view table) {
  std::vector<std::string_view> names;
  for (const setting_row& row : ROWS) {
    if (table.empty() || row.table == table) names.push_back(row.*member);
  }
  return names;
}

void read_key(const std::string& table, const std::string& key, unsigned line, const toml::node& node,
              configuration& out, mistake_list& mistakes) {
  const auto row = std::find_if(ROWS.begin(), ROWS.end(), [&](const setting_row& candidate) {
    return candidate.table == table && candidate.key == key;
  });
  if (row == ROWS.end()) {
    mistakes.add(line, "unknown key \"" + key + "\" in [" + table + "]" +
                           suggestion(key, known_names(&setting_row::key, table)));
    return;
  }
  out.lines[table + "." + key] = line;
  row->read({{node, line, key + " in [" + table + "]"}, out, mistakes});
}

void read_table(const std::string& table, unsigned line, const toml::node& node, configuration& out,
                mistake_list& mistakes) {
  const std::vector<std::string_view> tables = known_names(&setting_row::table, "");
  if (std::find(tables.begin(), tables.end(), table) == tables.end()) {
    const char* const what = node.is_table() ? "unknown table [" : "unknown key outside any table [";
    mistakes.add(line, what + table + "]" + suggestion(table, tables));
    return;
  }
  out.lines[table] = line;
  const auto* const members = toml_expect<toml::table>({node, line, table}, mistakes);
  if (members == nullptr) return;
  for (const auto& [key, member] : *members) {
    read_key(table, std::string(key.str()), key.source().begin.line, member, out, mistakes);
  }
}

}  // namespace

void settings_read(const toml::table& root, configuration& out, mistake_list& mistakes) {
  for (const auto& [table, node] : root) {
    read_table(std::string(table.str()), table.source().begin.line, node, out, mistakes);
  }
}

}  // namespace tarvex::server
