#pragma once

#include "config/account_permissions.h"
#include "config/client_network.h"
#include "config/mistake.h"

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarvex::server {

/// One login name of the accounts file.
struct account {
  std::string name;
  std::string password;    ///< crypt(3) hash; empty: the account has certificates only
  std::string credential;  ///< absolute path of the credential file, which may not exist; empty: the
                           ///< account is the broker's
  unsigned line = 0;       ///< of the accounts file, where the credential stands
  std::vector<std::string> certificates = {};  ///< any of which suffices; "sha256:HEX" or "subject:TEXT"
  std::string root = "/";                      ///< path in Box of what the account sees as "/": absolute, normal
  account_permissions permissions = account_permissions::full;
  std::vector<client_network> allow = {};                   ///< empty: clients may come from anywhere
  std::optional<std::chrono::year_month_day> expires = {};  ///< the last day (UTC) on which it is served
  bool disabled = false;
  unsigned max_sessions = 0;     ///< at a time; 0: no limit
  std::uint64_t max_upload = 0;  ///< bytes of one file; 0: as Box says
  std::string mistake = {};      ///< what is wrong with its table: nobody logs in then; empty: nothing

  bool operator==(const account&) const = default;
};

using account_map = std::map<std::string, account, std::less<>>;

/// What an accounts file says.
struct accounts_reading {
  bool readable = false;  ///< false: the file cannot be read, others may write it, or it is no TOML; no accounts then
  account_map accounts;   ///< also those with a mistake in their table
  std::vector<configuration_mistake> mistakes;  ///< all of them, by line; 0: of the file as a whole
};

/// Reads an accounts file (TOML, one table per login name). A mistake in an account's table is of that account only.
/// \param broker  whether there is one, to which accounts without a credential file belong; they are mistakes otherwise
[[nodiscard]] accounts_reading accounts_load(const std::string& file, bool broker);

/// The same of a text that was read from such a file already.
[[nodiscard]] accounts_reading accounts_parse(const std::string& file, const std::string& text, bool broker);

/// Checks a login. Takes as long for an unknown name as for a wrong password (a hash is computed either way). Whether
/// the account may be used now is another question: account_closed and account_admits answer it.
/// \return the account, borrowed from `accounts`; null when name or password is wrong.
const account* accounts_authenticate(const account_map& accounts, std::string_view name, const std::string& password);

/// Checks a login by certificate.
/// \param shown  the names of the certificate that the client has shown, and that was verified
/// \return the account when it lists one of them, borrowed from `accounts`; null otherwise. As with passwords, it may
/// be one that is closed.
const account* accounts_with_certificate(const account_map& accounts, std::string_view name,
                                         const std::vector<std::string>& shown);

/// What is wrong with the credential files that an accounts file names: others may write them, or they are no regular
/// files. One that does not exist, or cannot be read by now, is no mistake: it may be written later.
std::vector<configuration_mistake> accounts_credential_mistakes(const std::string& file, const account_map& accounts);

/// Warns in the log of a file that group or others may read. \param what  for the log: "accounts file"
void file_warn_exposed(const char* what, const std::string& path);

/// Warns in the log of an accounts file and of credential files that group or others may read.
void accounts_warn_exposed(const std::string& file, const account_map& accounts);

}  // namespace tarvex::server
