#include "config/accounts.h"

#include "base/log.h"
#include "base/text.h"
#include "config/toml_file.h"

#include <crypt.h>
#include <openssl/crypto.h>
#include <sys/stat.h>

#include <algorithm>
#include <functional>
#include <iterator>
#include <memory>

namespace tarvex::server {

namespace {

constexpr std::size_t LONGEST_NAME_BYTES = 256;

/// What a login is measured against when there is no account at all: a setting of the default cost, hash of nothing.
constexpr const char* DECOY_PASSWORD = "$y$j9T$uUXbIBGGkPrzKHxJNSTTZ.$";

struct cleanse_crypt_data {
  void operator()(crypt_data* data) const noexcept {
    OPENSSL_cleanse(data, sizeof *data);
    delete data;
  }
};

bool has_control_byte(std::string_view text) {
  return std::any_of(text.begin(), text.end(), is_control);
}

/// Whether libcrypt can verify against `hash`. Without a scheme's "$" or "_" anything that begins with two letters
/// could be the oldest scheme's salt, so a password in plain text is told apart by the length, which is fixed there.
bool is_password_hash(const std::string& hash) {
  constexpr std::size_t DES_LENGTH = 13;
  const int kind = crypt_checksalt(hash.c_str());
  if (kind == CRYPT_SALT_INVALID || kind == CRYPT_SALT_METHOD_DISABLED || has_control_byte(hash)) return false;
  return hash.starts_with('$') || hash.starts_with('_') || hash.size() == DES_LENGTH;
}

void read_password(const std::string& where, const toml_value& value, account& out, mistake_list& mistakes) {
  if (!toml_expect(toml_kind::text, value, where, mistakes)) return;
  out.password = value.text;
  if (!is_password_hash(value.text)) {
    mistakes.add(value.line,
                 where + ": this is no password hash of crypt(3); make one with: openssl passwd -6, or: mkpasswd");
  }
}

void read_credential(const std::string& where, const toml_value& value, account& out, mistake_list& mistakes) {
  if (!toml_expect(toml_kind::text, value, where, mistakes)) return;
  out.credential = path_beside(mistakes.file, value.text);
  if (value.text.empty()) mistakes.add(value.line, where + ": expected the path of a file, found an empty text");
}

struct account_key {
  std::string_view name;
  void (*read)(const std::string& where, const toml_value& value, account& out, mistake_list& mistakes);
};
constexpr account_key KEYS[] = {{"password", read_password}, {"credential", read_credential}};

void read_key(const std::string& table, const std::string& name, const toml_value& value, account& out,
              mistake_list& mistakes) {
  std::vector<std::string_view> known;
  for (const account_key& key : KEYS) {
    if (key.name == name) return key.read(name + " in " + table, value, out, mistakes);
    known.push_back(key.name);
  }
  const bool dotted = value.kind == toml_kind::table;
  mistakes.add(value.line, "unknown key \"" + name + "\" in " + table +
                               (dotted ? "; put a login name with a dot in quotes" : toml_suggestion(name, known)));
}

void read_account(const std::string& name, const toml_value& value, account_map& out, mistake_list& mistakes) {
  const std::string table = "[" + name + "]";
  if (name.empty() || name.size() > LONGEST_NAME_BYTES || has_control_byte(name)) {
    mistakes.add(value.line, table + ": a login name has 1 to 256 bytes, none of them a control byte");
    return;
  }
  if (!toml_expect(toml_kind::table, value, "account " + table, mistakes)) return;
  account read = {.name = name, .password = {}, .credential = {}};
  for (const auto& [key, member] : value.members) read_key(table, key, member, read, mistakes);
  for (const account_key& key : KEYS) {
    const bool present = std::any_of(value.members.begin(), value.members.end(),
                                     [&](const auto& member) { return member.first == key.name; });
    if (!present) mistakes.add(value.line, std::string(key.name) + " in " + table + " is missing");
  }
  out.emplace(name, std::move(read));
}

bool password_matches(const std::string& password, const std::string& hash) {
  const std::unique_ptr<crypt_data, cleanse_crypt_data> data(new crypt_data{});
  const char* const computed = crypt_rn(password.c_str(), hash.c_str(), data.get(), sizeof *data);
  if (computed == nullptr || password.find('\0') != std::string::npos) return false;
  const std::string_view answer(computed);
  return answer.size() == hash.size() && CRYPTO_memcmp(answer.data(), hash.data(), hash.size()) == 0;
}

/// The hash that an unknown name is measured against: some account's, always the same for the same name, so that
/// unknown names take the times that known ones take, also where accounts use different schemes.
std::string decoy(const account_map& accounts, std::string_view name) {
  if (accounts.empty()) return DECOY_PASSWORD;
  const std::size_t index = std::hash<std::string_view>()(name) % accounts.size();
  return std::next(accounts.begin(), static_cast<std::ptrdiff_t>(index))->second.password;
}

void warn_when_exposed(const char* what, const std::string& path) {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0 || (status.st_mode & (S_IRGRP | S_IROTH)) == 0) return;
  log_warning("{} {} is readable by others (mode {:04o}); chmod 600 it", what, path, status.st_mode & 07777U);
}

}  // namespace

std::vector<configuration_mistake> accounts_load(const std::string& file, account_map& out) {
  mistake_list mistakes{file, {}};
  toml_value root;
  if (!toml_read(mistakes, root)) return std::move(mistakes).sorted();
  for (const auto& [name, value] : root.members) read_account(name, value, out, mistakes);
  return std::move(mistakes).sorted();
}

const account* accounts_authenticate(const account_map& accounts, std::string_view name, const std::string& password) {
  const auto found = accounts.find(name);
  const bool known = found != accounts.end();
  const bool matches = password_matches(password, known ? found->second.password : decoy(accounts, name));
  return known && matches ? &found->second : nullptr;
}

void accounts_warn_exposed(const std::string& file, const account_map& accounts) {
  warn_when_exposed("accounts file", file);
  for (const auto& [name, entry] : accounts) warn_when_exposed("credential file", entry.credential);
}

}  // namespace tarvex::server
