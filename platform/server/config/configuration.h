#pragma once

#include "config/listen_address.h"
#include "config/mistake.h"

#include <boost/asio/ip/address_v4.hpp>

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tarvex::server {

/// Whether sessions confine themselves: `require` serves nobody where the kernel cannot, `attempt` takes what there is.
enum class sandbox_mode { require, attempt, off };

/// How the broker's records lie on the disk.
enum class store_encryption { aes_256_gcm, none };

/// Everything the configuration file says, with defaults in place. Paths are absolute.
struct configuration {
  // [server]
  std::vector<listen_address> listen;
  std::optional<std::pair<std::uint16_t, std::uint16_t>> data_ports;  ///< passive ports, both ends included
  std::optional<boost::asio::ip::address_v4> passive_address;         ///< announced in PASV; none: the local address
  bool allow_plaintext_login = false;
  unsigned max_sessions = 1000;
  unsigned idle_timeout_s = 300;
  unsigned grace_time_s = 10;           ///< for what runs when the server is to stop
  unsigned update_interval_s = 5;       ///< between progress replies; 0: none
  unsigned end_grace_ms = 1000;         ///< before the end of data without an announced size is believed; least
  std::string spool_directory;          ///< empty: a private temporary directory
  std::uint64_t spool_limit_bytes = 0;  ///< of one stored file; 0: as the disk allows

  // [tls]; certificate and key are empty when the table is absent
  std::string tls_certificate;
  std::string tls_key;
  std::string tls_client_ca;                    ///< whose certificates clients may log in with; empty: none
  std::string tls_ciphers;                      ///< of TLS 1.2; empty: the usual ones
  std::vector<listen_address> implicit_listen;  ///< where TLS begins before the greeting
  bool tls_require_close_notify = false;        ///< uploads in stream mode end with it, or fail
  bool tls_require_resumption = false;          ///< data connections resume the control connection's session, or fail

  // [accounts]
  std::string accounts_file;

  // [storage]
  std::string storage_dsi = "box";
  std::string storage_library;
  std::optional<std::string> storage_policy;
  std::map<std::string, int> storage_settings;

  // [box]; empty when absent
  std::string box_api_base;
  std::string box_upload_base;
  std::string box_ca_file;
  std::string box_proxy;  ///< URL of the proxy that requests to Box go through

  // [box], the app that accounts are signed in with; https, or http to a loopback host
  std::string box_authorize_url = "https://account.box.com/api/oauth2/authorize";
  std::string box_token_url = "https://api.box.com/oauth2/token";
  std::string box_revoke_url = "https://api.box.com/oauth2/revoke";  ///< default: "revoke" beside the token URL
  std::string box_client_id;
  std::string box_client_secret_file;  ///< empty: there is none
  std::string box_redirect = "http://127.0.0.1/callback";

  // [broker]
  std::string
      broker_directory;  ///< of its store; empty: there is no such table, and every account has a credential file
  std::string broker_key_file;  ///< empty: systemd's credential "store-key", or no encryption
  store_encryption broker_encryption = store_encryption::aes_256_gcm;
  std::string broker_user = "tarvex-broker";  ///< whom the broker becomes when it is started as root
  unsigned broker_idle_renewal_s = 1728000;   ///< accounts without sessions are renewed so often

  // [limits], over all sessions of this server
  std::uint64_t spool_memory_bytes = std::uint64_t{1} << 30;  ///< of uploads that wait in memory
  std::uint64_t spool_disk_bytes = 0;  ///< of those in the spool directory; 0: as the disk allows
  std::uint64_t window_bytes_total = std::uint64_t{1} << 30;  ///< of blocks that came early
  unsigned sessions_per_account = 0;                          ///< 0 here and in the next three: no limit
  unsigned sessions_per_address = 100;
  unsigned connections_per_minute = 600;  ///< of one address
  unsigned wrong_passwords = 20;          ///< of one address within the window
  unsigned wrong_passwords_window_s = 600;
  unsigned login_timeout_s = 120;
  unsigned line_length = 8192;      ///< bytes of a command line with its end
  unsigned stalled_timeout_s = 60;  ///< a transfer that waits for the client as long is given up

  // [limits], of one transfer in extended block mode
  unsigned data_streams = 16;           ///< connections
  std::size_t window_bytes = 64 << 20;  ///< of blocks that came early

  // [security]
  std::string user = "tarvex";  ///< whom a server that was started as root becomes
  sandbox_mode sandbox = sandbox_mode::attempt;

  std::map<std::string, unsigned> lines;  ///< where FILE sets what, by "table.key"; for mistakes that show later
};

/// Line of FILE where `name` ("table.key" or "table") stands; 0 when it stands nowhere.
unsigned configuration_line(const configuration& config, const std::string& name);

/// Reads and checks FILE (TOML). Reports every mistake it finds, not only the first: syntax, unknown tables and keys,
/// wrong types, values out of range, files that are named and do not exist. With mistakes the configuration is not to
/// be used.
std::vector<configuration_mistake> configuration_load(const std::string& file, configuration& out);

}  // namespace tarvex::server
