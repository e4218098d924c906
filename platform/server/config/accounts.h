#pragma once

#include "config/mistake.h"

#include <boost/asio/ip/network_v4.hpp>
#include <boost/asio/ip/network_v6.hpp>

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace tarvex::server {

/// What an account's sessions may do; see command/table.
enum class account_permissions { full, read_only, upload_only };

/// A network that clients come from.
using client_network = std::variant<boost::asio::ip::network_v4, boost::asio::ip::network_v6>;

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
