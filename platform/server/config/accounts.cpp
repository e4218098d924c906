#include "config/accounts.h"

#include "base/log.h"
#include "base/regular_file.h"
#include "base/text.h"
#include "config/password_hash.h"
#include "config/suggestion.h"
#include "config/toml_file.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <iterator>
#include <utility>

namespace tarvex::server {

namespace {

constexpr std::size_t LONGEST_NAME_BYTES = 256;

/// What a login is measured against when there is no account at all: a setting of the default cost, hash of nothing.
constexpr const char* DECOY_PASSWORD = "$y$j9T$uUXbIBGGkPrzKHxJNSTTZ.$";

void read_password(const toml_entry& entry, account& out, mistake_list& mistakes) {
  const auto* const text = toml_expect<std::string>(entry, mistakes);
  if (text == nullptr) return;
  out.password = *text;
  if (is_password_hash(*text)) return;
  mistakes.add(entry.line,
               entry.where + ": this is no password hash of crypt(3); make one with: openssl passwd -6, or: mkpasswd");
}

void read_credential(const toml_entry& entry, account& out, mistake_list& mistakes) {
  const auto* const text = toml_expect<std::string>(entry, mistakes);
  if (text == nullptr) return;
  out.credential = path_beside(mistakes.file, *text);
  out.line = entry.line;
  if (text->empty()) mistakes.add(entry.line, entry.where + ": expected the path of a file, found an empty text");
}

bool is_certificate_name(std::string_view text) {
  constexpr std::string_view DIGEST = "sha256:", SUBJECT = "subject:", HEX = "0123456789abcdef";
  constexpr std::size_t DIGITS = 64;
  if (text.starts_with(SUBJECT)) return text.size() > SUBJECT.size();
  if (!text.starts_with(DIGEST)) return false;
  text.remove_prefix(DIGEST.size());
  return text.size() == DIGITS && text.find_first_not_of(HEX) == std::string_view::npos;
}

void read_certificates(const toml_entry& entry, account& out, mistake_list& mistakes) {
  const auto* const items = toml_expect<toml::array>(entry, mistakes);
  if (items == nullptr) return;
  if (items->empty()) mistakes.add(entry.line, entry.where + ": name at least one certificate");
  for (const toml::node& node : *items) {
    const toml_entry item{node, node.source().begin.line, entry.where};
    const auto* const text = toml_expect<std::string>(item, mistakes);
    if (text == nullptr) continue;
    out.certificates.push_back(*text);
    if (!is_certificate_name(*text))
      toml_refuse(item, "\"sha256:\" and 64 digits of lower-case hex, or \"subject:\" and a subject", mistakes);
  }
}

struct account_key {
  std::string_view name;
  void (*read)(const toml_entry& entry, account& out, mistake_list& mistakes);
};
constexpr account_key KEYS[] = {
    {"password", read_password}, {"credential", read_credential}, {"certificates", read_certificates}};

void read_key(const std::string& table, const toml::key& key, const toml::node& node, account& out,
              mistake_list& mistakes) {
  const std::string name(key.str());
  const unsigned line = key.source().begin.line;
  std::vector<std::string_view> known;
  for (const account_key& row : KEYS) {
    if (row.name == name) return row.read({node, line, name + " in " + table}, out, mistakes);
    known.push_back(row.name);
  }
  mistakes.add(line, "unknown key \"" + name + "\" in " + table +
                         (node.is_table() ? "; put a login name with a dot in quotes" : suggestion(name, known)));
}

void read_account(const toml::key& key, const toml::node& node, account_map& out, mistake_list& mistakes) {
  const std::string name(key.str());
  const std::string table = "[" + name + "]";
  const unsigned line = key.source().begin.line;
  if (name.empty() || name.size() > LONGEST_NAME_BYTES || std::any_of(name.begin(), name.end(), is_control)) {
    mistakes.add(line, table + ": a login name has 1 to 256 bytes, none of them a control byte");
    return;
  }
  const auto* const members = toml_expect<toml::table>({node, line, "account " + table}, mistakes);
  if (members == nullptr) return;
  account read = {.name = name, .password = {}, .credential = {}, .line = line};
  for (const auto& [member, value] : *members) read_key(table, member, value, read, mistakes);
  if (!members->contains("password") && !members->contains("certificates"))
    mistakes.add(line, "password in " + table + " is missing, and so is certificates; one of them is needed");
  if (!members->contains("credential")) mistakes.add(line, "credential in " + table + " is missing");
  out.emplace(name, std::move(read));
}

/// The hash that a name without one is measured against: some account's, always the same for the same name, so that
/// unknown names take the times that known ones take, also where accounts use different schemes.
std::string decoy(const account_map& accounts, std::string_view name) {
  if (accounts.empty()) return DECOY_PASSWORD;
  const std::size_t index = std::hash<std::string_view>()(name) % accounts.size();
  const std::string& chosen = std::next(accounts.begin(), static_cast<std::ptrdiff_t>(index))->second.password;
  return chosen.empty() ? DECOY_PASSWORD : chosen;
}

void warn_when_exposed(const char* what, const std::string& path) {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0 || (status.st_mode & (S_IRGRP | S_IROTH)) == 0) return;
  log_warning("{} {} is readable by others (mode {:04o}); chmod 600 it", what, path, status.st_mode & 07777U);
}

}  // namespace

std::vector<configuration_mistake> accounts_load(const std::string& file, account_map& out) {
  mistake_list mistakes{file, {}};
  const std::optional<toml::table> root = toml_read(mistakes, file_trust::owner_only);
  if (!root) return std::move(mistakes).sorted();
  for (const auto& [name, node] : *root) read_account(name, node, out, mistakes);
  return std::move(mistakes).sorted();
}

const account* accounts_authenticate(const account_map& accounts, std::string_view name, const std::string& password) {
  const auto found = accounts.find(name);
  const bool known = found != accounts.end() && !found->second.password.empty();
  const bool matches = password_matches(password, known ? found->second.password : decoy(accounts, name));
  return known && matches ? &found->second : nullptr;
}

const account* accounts_with_certificate(const account_map& accounts, std::string_view name,
                                         const std::vector<std::string>& shown) {
  const auto found = accounts.find(name);
  if (found == accounts.end()) return nullptr;
  const std::vector<std::string>& listed = found->second.certificates;
  const bool matches = std::find_first_of(listed.begin(), listed.end(), shown.begin(), shown.end()) != listed.end();
  return matches ? &found->second : nullptr;
}

std::vector<configuration_mistake> accounts_credential_mistakes(const std::string& file, const account_map& accounts) {
  mistake_list mistakes{file, {}};
  for (const auto& [name, entry] : accounts) {
    const auto failure = regular_file_check(entry.credential, file_trust::owner_only);
    if (!failure || failure->error == ENOENT || failure->error == EACCES) continue;
    mistakes.add(entry.line, "credential in [" + name + "]: " + entry.credential + " " + failure->text);
  }
  return std::move(mistakes).sorted();
}

void accounts_warn_exposed(const std::string& file, const account_map& accounts) {
  warn_when_exposed("accounts file", file);
  for (const auto& [name, entry] : accounts) warn_when_exposed("credential file", entry.credential);
}

}  // namespace tarvex::server
