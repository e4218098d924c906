#include "config/accounts.h"

#include "base/log.h"
#include "base/regular_file.h"
#include "config/account_keys.h"
#include "config/password_hash.h"
#include "config/suggestion.h"
#include "config/toml_file.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <iterator>
#include <utility>

namespace tarvex::server {

namespace {

/// What a login is measured against when there is no account at all: a setting of the default cost, hash of nothing.
constexpr const char* DECOY_PASSWORD = "$y$j9T$uUXbIBGGkPrzKHxJNSTTZ.$";

/// One account's table on its way into the map. Its mistakes are kept apart, so that they close this account alone.
struct account_table {
  std::string where;  ///< "[NAME]"
  unsigned line;
  mistake_list mistakes;
  account read;

  void entry(const toml::key& key, const toml::node& node) {
    const std::string name(key.str());
    const unsigned at = key.source().begin.line;
    if (account_key_read(name, {node, at, name + " in " + where}, read, mistakes)) return;
    mistakes.add(
        at, "unknown key \"" + name + "\" in " + where +
                (node.is_table() ? "; put a login name with a dot in quotes" : suggestion(name, account_key_names())));
  }
  void require(const toml::table& members, bool broker) {
    if (!members.contains("password") && !members.contains("certificates"))
      mistakes.add(line, "password in " + where + " is missing, and so is certificates; one of them is needed");
    if (!broker && !members.contains("credential")) mistakes.add(line, "credential in " + where + " is missing");
  }
};

std::string joined_texts(const std::vector<configuration_mistake>& mistakes) {
  std::string texts;
  for (const configuration_mistake& mistake : mistakes) texts.append(texts.empty() ? "" : "; ").append(mistake.text);
  return texts;
}

void read_account(const toml::key& key, const toml::node& node, bool broker, mistake_list& mistakes, account_map& out) {
  const std::string name(key.str());
  const unsigned line = key.source().begin.line;
  account_table table{"[" + name + "]", line, {mistakes.file, {}}, {.name = name, .password = {}, .credential = {}}};
  table.read.line = line;
  if (const std::string error = account_name_error(name); !error.empty()) {
    mistakes.add(line, table.where + ": " + error);
    return;
  }
  if (const auto* const members = toml_expect<toml::table>({node, line, "account " + table.where}, table.mistakes)) {
    for (const auto& [member, value] : *members) table.entry(member, value);
    table.require(*members, broker);
  }
  auto found = std::move(table.mistakes).sorted();
  table.read.mistake = joined_texts(found);
  mistakes.found.insert(mistakes.found.end(), found.begin(), found.end());
  out.emplace(name, std::move(table.read));
}

/// The hash that a name without one is measured against: some account's, always the same for the same name, so that
/// unknown names take the times that known ones take, also where accounts use different schemes.
std::string decoy(const account_map& accounts, std::string_view name) {
  if (accounts.empty()) return DECOY_PASSWORD;
  const std::size_t index = std::hash<std::string_view>()(name) % accounts.size();
  const std::string& chosen = std::next(accounts.begin(), static_cast<std::ptrdiff_t>(index))->second.password;
  return chosen.empty() ? DECOY_PASSWORD : chosen;
}

}  // namespace

accounts_reading accounts_load(const std::string& file, bool broker) {
  std::string text;
  if (const auto failure = regular_file_read(file, file_trust::owner_only, TOML_LARGEST_MIB, text))
    return {.readable = false, .accounts = {}, .mistakes = {{file, 0, failure->text}}};
  return accounts_parse(file, text, broker);
}

accounts_reading accounts_parse(const std::string& file, const std::string& text, bool broker) {
  accounts_reading out;
  mistake_list mistakes{file, {}};
  const std::optional<toml::table> root = toml_parse(text, mistakes);
  out.readable = root.has_value();
  if (root) {
    for (const auto& [name, node] : *root) read_account(name, node, broker, mistakes, out.accounts);
  }
  out.mistakes = std::move(mistakes).sorted();
  return out;
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
    if (entry.credential.empty()) continue;
    const auto failure = regular_file_check(entry.credential, file_trust::owner_only);
    if (!failure || failure->error == ENOENT || failure->error == EACCES) continue;
    mistakes.add(entry.line, "credential in [" + name + "]: " + entry.credential + " " + failure->text);
  }
  return std::move(mistakes).sorted();
}

void file_warn_exposed(const char* what, const std::string& path) {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0 || (status.st_mode & (S_IRGRP | S_IROTH)) == 0) return;
  log_warning("{} {} is readable by others (mode {:04o}); chmod 600 it", what, path, status.st_mode & 07777U);
}

void accounts_warn_exposed(const std::string& file, const account_map& accounts) {
  file_warn_exposed("accounts file", file);
  for (const auto& [name, entry] : accounts) {
    if (!entry.credential.empty()) file_warn_exposed("credential file", entry.credential);
  }
}

}  // namespace tarvex::server
