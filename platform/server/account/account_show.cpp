#include "account/account_show.h"

#include "account/account_status.h"
#include "account/json_print.h"
#include "account/terminal.h"
#include "base/text.h"
#include "config/account_permissions.h"

#include <fmt/chrono.h>
#include <fmt/core.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <utility>
#include <vector>

namespace tarvex::server {

namespace {

constexpr std::size_t COLUMNS = 7;
using table_row = std::array<std::string, COLUMNS>;
const table_row HEAD = {"NAME", "GRANT", "STATE", "BOX USER", "ROOT", "PERMISSIONS", "EXPIRES"};

std::string day_text(const account& who) {
  if (!who.expires) return "";
  return fmt::format("{:04}-{:02}-{:02}", static_cast<int>(who.expires->year()),
                     static_cast<unsigned>(who.expires->month()), static_cast<unsigned>(who.expires->day()));
}

std::string moment_text(const std::optional<std::chrono::sys_seconds>& moment) {
  if (!moment || moment->time_since_epoch().count() == 0) return "";
  return fmt::format("{:%Y-%m-%dT%H:%M:%SZ}", fmt::gmtime(std::chrono::system_clock::to_time_t(*moment)));
}

std::vector<std::string> networks_of(const account& who) {
  std::vector<std::string> texts;
  for (const client_network& network : who.allow) texts.push_back(client_network_text(network));
  return texts;
}

table_row row_of(const account_status& of) {
  const std::array<std::string_view, COLUMNS> cells = {
      of.who.name, of.grant, of.state, of.box_user, of.who.root, account_permissions_text(of.who.permissions), ""};
  table_row row;
  for (std::size_t i = 0; i < COLUMNS; ++i) append_printable(row[i], cells[i]);
  row.back() = day_text(of.who);
  for (std::string& cell : row)
    if (cell.empty()) cell = "-";
  return row;
}

/// Characters of UTF-8.
std::size_t width_of(const std::string& text) {
  return static_cast<std::size_t>(
      std::count_if(text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xc0U) != 0x80; }));
}

void print_table(const std::vector<table_row>& rows) {
  std::array<std::size_t, COLUMNS> widths{};
  for (const table_row& row : rows)
    for (std::size_t i = 0; i < COLUMNS; ++i) widths[i] = std::max(widths[i], width_of(row[i]));
  for (const table_row& row : rows) {
    std::string line;
    for (std::size_t i = 0; i + 1 < COLUMNS; ++i) line.append(row[i]).append(widths[i] - width_of(row[i]) + 2, ' ');
    terminal_say(line + row.back());
  }
}

void set_number(json_t* object, const char* key, std::uint64_t number) {
  if (number == 0) return json_set_null(object, key);
  json_set_integer(object, key, static_cast<json_int_t>(number));
}

void set_text(json_t* object, const char* key, const std::string& text) {
  if (text.empty()) return json_set_null(object, key);
  json_set_text(object, key, text);
}

json_document json_of(const account_status& of) {
  json_document object = json_made(json_object());
  json_set_text(object.get(), "name", of.who.name);
  json_set_text(object.get(), "grant", of.grant);
  json_set_text(object.get(), "state", of.state);
  set_text(object.get(), "box_user", of.box_user);
  set_text(object.get(), "login", of.login);
  json_set_text(object.get(), "root", of.who.root);
  json_set_text(object.get(), "permissions", account_permissions_text(of.who.permissions));
  json_document allow = json_made(json_array());
  for (const std::string& network : networks_of(of.who)) json_add_text(allow.get(), network);
  json_set_document(object.get(), "allow", std::move(allow));
  set_text(object.get(), "expires", day_text(of.who));
  set_number(object.get(), "max_sessions", of.who.max_sessions);
  set_number(object.get(), "max_upload", of.who.max_upload);
  set_number(object.get(), "box_max_upload", of.max_upload);
  set_text(object.get(), "token_expires_at", moment_text(of.token_expires_at));
  set_text(object.get(), "last_error", of.last_error);
  return object;
}

std::string number_text(std::uint64_t number) {
  return number == 0 ? "" : std::to_string(number);
}

void print_details(const account_status& of) {
  std::string allow;
  for (const std::string& network : networks_of(of.who)) allow.append(allow.empty() ? "" : ", ").append(network);
  const std::pair<const char*, std::string> lines[] = {
      {"name", of.who.name},
      {"grant", of.grant},
      {"state", of.state},
      {"Box user", of.box_user},
      {"login", of.login},
      {"root", of.who.root},
      {"permissions", std::string(account_permissions_text(of.who.permissions))},
      {"allow", allow},
      {"expires", day_text(of.who)},
      {"max_sessions", number_text(of.who.max_sessions)},
      {"max_upload", number_text(of.who.max_upload)},
      {"Box's upload limit", number_text(of.max_upload)},
      {"token good until", moment_text(of.token_expires_at)},
      {"last error", of.last_error},
  };
  for (const auto& [key, value] : lines)
    if (!value.empty()) terminal_say(fmt::format("{}: {}", key, value));
}

}  // namespace

void account_list(const account_files& files, bool json) {
  std::vector<table_row> rows = {HEAD};
  json_document all = json_made(json_array());
  for (const auto& [name, who] : files.accounts()) {
    const account_status status = account_status_of(files, who);
    if (json) json_add_document(all.get(), json_of(status));
    rows.push_back(row_of(status));
  }
  if (json) return json_print(all.get());
  print_table(rows);
}

void account_show(const account_files& files, const std::string& name, bool json) {
  const account_status status = account_status_of(files, files.account_named(name));
  if (json) return json_print(json_of(status).get());
  print_details(status);
}

}  // namespace tarvex::server
