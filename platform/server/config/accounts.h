#pragma once

#include "config/mistake.h"

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace tarvex::server {

/// One login name of the accounts file.
struct account {
  std::string name;
  std::string password;                        ///< crypt(3) hash; empty: the account has certificates only
  std::string credential;                      ///< absolute path of the credential file; it may not exist
  unsigned line = 0;                           ///< of the accounts file, where the credential stands
  std::vector<std::string> certificates = {};  ///< any of which suffices; "sha256:HEX" or "subject:TEXT"
};

using account_map = std::map<std::string, account, std::less<>>;

/// Reads an accounts file (TOML, one table per login name), reporting every mistake in it. A mistake of the file as a
/// whole (line 0) means that it cannot be read, or must not be believed because others may write it.
std::vector<configuration_mistake> accounts_load(const std::string& file, account_map& out);

/// Checks a login. Takes as long for an unknown name as for a wrong password (a hash is computed either way).
/// \return the account, borrowed from `accounts`; null when name or password is wrong.
const account* accounts_authenticate(const account_map& accounts, std::string_view name, const std::string& password);

/// Checks a login by certificate.
/// \param shown  the names of the certificate that the client has shown, and that was verified
/// \return the account when it lists one of them, borrowed from `accounts`; null otherwise.
const account* accounts_with_certificate(const account_map& accounts, std::string_view name,
                                         const std::vector<std::string>& shown);

/// What is wrong with the credential files that an accounts file names: others may write them, or they are no regular
/// files. One that does not exist, or cannot be read by now, is no mistake: it may be written later.
std::vector<configuration_mistake> accounts_credential_mistakes(const std::string& file, const account_map& accounts);

/// Warns in the log of an accounts file and of credential files that group or others may read.
void accounts_warn_exposed(const std::string& file, const account_map& accounts);

}  // namespace tarvex::server
