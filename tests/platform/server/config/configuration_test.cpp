#include "config/configuration.h"

#include "config/secret_file.h"
#include "support/temporary_folder.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

namespace tarvex::server {
namespace {

class Configuration : public testing::Test {
 protected:
  Configuration() {
    write("accounts.toml", "", 0644);
    write("key", std::string(32, '\0') + "\n", 0600);
    write("short", std::string(31, 'k') + "\n", 0600);
    write("exposed", std::string(32, 'k'), 0620);
  }

  void write(const char* name, const std::string& content, mode_t mode) const {
    chmod(folder_.write(name, content).c_str(), mode);
  }

  std::vector<configuration_mistake> load(const std::string& text, configuration& out) const {
    return configuration_load(folder_.write("c.toml", text), out);
  }

  temporary_folder folder_;
};

TEST_F(Configuration, DefaultsAndEveryKey) {
  configuration plain;
  ASSERT_TRUE(load("[accounts]\nfile = \"accounts.toml\"\n", plain).empty());
  ASSERT_EQ(plain.listen.size(), 1U);
  EXPECT_EQ(listen_address_text(plain.listen[0]), "127.0.0.1:2811");
  EXPECT_EQ(plain.spool_memory_bytes, 1073741824U);
  EXPECT_TRUE(plain.storage_library.ends_with("libtarvex_gridftp_server_box.so")) << plain.storage_library;

  folder_.write("ca.pem", "");
  folder_.write("mine.so", "");
  configuration full;
  const auto mistakes = load(R"([server]
listen = ["0.0.0.0:0", "[::1]:65535"]
data_ports = [1024, 1024]
passive_address = "192.0.2.7"
allow_plaintext_login = true
spool_directory = "."
spool_limit = 9223372036854775807
[accounts]
file = "accounts.toml"
[storage]
dsi = "fake"
library = "mine.so"
policy = 'not "read" here'
[storage.settings]
level = -2147483648
[box]
api_base = "http://127.0.0.1:8080"
upload_base = "https://[::1]"
ca_file = "ca.pem"
proxy = "socks5h://me:p%40ss@[::1]:1080"
[limits]
spool_memory_bytes = 0
spool_disk_bytes = 9223372036854775807
stalled_timeout = 7
[security]
user = "ftp"
sandbox = "require"
)",
                             full);
  for (const auto& mistake : mistakes) ADD_FAILURE() << mistake_text(mistake);
  ASSERT_EQ(full.listen.size(), 2U);
  EXPECT_EQ(listen_address_text(full.listen[0]), "0.0.0.0:0");
  EXPECT_EQ(listen_address_text(full.listen[1]), "[::1]:65535");
  EXPECT_EQ(full.passive_address->to_string(), "192.0.2.7");
  EXPECT_EQ(full.data_ports->second, 1024);
  EXPECT_EQ(full.spool_limit_bytes, 9223372036854775807U);
  EXPECT_EQ(full.storage_library, folder_.path("mine.so"));
  EXPECT_EQ(full.storage_policy, "not \"read\" here");
  EXPECT_EQ(full.storage_settings.at("level"), -2147483647 - 1);
  EXPECT_EQ(full.box_ca_file, folder_.path("ca.pem"));
  EXPECT_EQ(full.box_proxy, "socks5h://me:p%40ss@[::1]:1080");
  EXPECT_EQ(full.spool_memory_bytes, 0U);
  EXPECT_EQ(full.spool_disk_bytes, 9223372036854775807U);
  EXPECT_EQ(full.stalled_timeout_s, 7U);
  EXPECT_EQ(full.user, "ftp");
  EXPECT_EQ(full.sandbox, sandbox_mode::require);
}

struct mistake_row {
  const char* table;
  const char* line;
  const char* text;
};

TEST_F(Configuration, EveryMistakeIsReportedWithItsLine) {
  const mistake_row rows[] = {
      {"server", "listne = []", "unknown key \"listne\" in [server]; did you mean \"listen\"?"},
      {"sever", "listen = 1", ""},
      {"server", "listen = []", "at least one address"},
      {"server", "listen = ['localhost:1']", "\"IPv4:PORT\""},
      {"server", "listen = ['127.0.0.1:65536']", "127.0.0.1:65536"},
      {"server", "listen = ['::1:21']", "[IPv6]"},
      {"server", "listen = ['127.0.0.1:+1']", "PORT"},
      {"server", "listen = ['[fe80::1%lo]:1']", "PORT"},
      {"server", "listen = ['[::1]']", "PORT"},
      {"server", "listen = [21]", "expected a text in quotes, found 21"},
      {"server", "data_ports = [1023, 2000]", "1024 to 65535"},
      {"server", "data_ports = [2000, 1999]", "rising order"},
      {"server", "data_ports = [2000, '2001']", "two ports"},
      {"server", "passive_address = '::1'", "numeric IPv4"},
      {"server", "allow_plaintext_login = 1", "expected true or false, found 1"},
      {"server", "max_sessions = 0", "from 1 to 100000, found 0"},
      {"server", "max_sessions = 1.5", "expected a whole number"},
      {"server", "idle_timeout = '300'", "expected a whole number, found the text \"300\""},
      {"server", "spool_directory = 'none'", "No such file"},
      {"server", "spool_directory = 'accounts.toml'", "no folder"},
      {"tls", "certificate = 'none.pem'", "No such file"},
      {"tls", "client_ca = 'none.pem'", "No such file"},
      {"tls", "ciphers = 5", "expected a text in quotes"},
      {"tls", "implicit_listen = ['127.0.0.1']", "\"IPv4:PORT\""},
      {"tls", "require_resumption = 'yes'", "expected true or false"},
      {"storage", "policy = 5", "expected a text in quotes"},
      {"storage", "dsi = 'a-b'", "letters, digits"},
      {"storage.settings", "level = 2147483648", "32 bits"},
      {"box", "api_base = 'https://api.box.com/'", "nothing after it"},
      {"box", "upload_base = 'https://u@h'", "http://HOST"},
      {"box", "upload_base = 'https://h:0'", "http://HOST"},
      {"box", "upload_base = 'https://[1.2.3.4]'", "http://HOST"},
      {"box", "proxy = 'ftp://h:1'", "socks4, socks4a, socks5 or socks5h"},
      {"box", "proxy = 'http://h:1/'", "nothing after it"},
      {"box", "proxy = 'http://@h'", "SCHEME"},
      {"box", "proxy = 'http://u:p@'", "SCHEME"},
      {"box", "proxy = 'h:1'", "SCHEME"},
      {"box", "authorize_url = 'http://box.example/authorize'", "http for a loopback host only"},
      {"box", "token_url = 'https://api.box.com'", "https://HOST[:PORT]/PATH"},
      {"box", "token_url = 'http://localhost.example/t'", "loopback"},
      {"box", "token_url = 'http://127.0.0.1@box.example/t'", "loopback"},
      {"box", "token_url = 'https://u@api.box.com/t'", "HOST"},
      {"box", "revoke_url = 'https://api.box.com/t?x=1'", "without \"?\" and \"#\""},
      {"box", "revoke_url = 'https://api.box.com/a b'", "PATH"},
      {"box", "redirect = 'http://192.0.2.1/callback'", "loopback"},
      {"box", "redirect = 'urn:callback'", "PATH"},
      {"box", "client_secret_file = 'none'", "client_secret_file in [box]: "},
      {"box", "client_secret_file = 'accounts.toml'", "is empty"},
      {"broker", "encryption = 'aes'", "\"aes-256-gcm\" or \"none\""},
      {"broker", "key_file = ''", "a path"},
      {"broker", "key_file = 'none'", "cannot be opened: No such file"},
      {"broker", "key_file = 'short'", "has 31 bytes, and 32 are needed; make one with: openssl rand -out"},
      {"broker", "key_file = 'exposed'", "exposed "},
      {"broker", "user = ''", "the name of a user"},
      {"broker", "idle_renewal = 59", "from 60 to 5184000"},
      {"limits", "spool_memory_bytes = -1", "from 0 to"},
      {"limits", "line_length = 10", "from 512 to 65536"},
      {"limits", "data_streams = 0", "from 1 to 256"},
      {"limits", "window_bytes = 1048575", "from 1048576 to"},
      {"security", "user = ''", "the name of a user"},
      {"security", "sandbox = 'on'", "\"require\", \"try\" or \"off\""},
      {"storage", "policy = '{\"user_api_rate_limit\": 0}'", "policy in [storage]: expected user_api_rate_limit"},
      {"storage", "policy = '{\"user_api_rate_limit\": \"9\"}'", "from 1 up"},
      {"storage", "policy = '[]'", "JSON object"},
      {"storage", "policy = '{'", "no JSON"},
      {"box", "ca_file = ", ""},
  };
  for (const mistake_row& row : rows) {
    configuration ignored;
    const std::string text = std::string("[accounts]\nfile = 'accounts.toml'\n[") + row.table + "]\n" + row.line + "\n";
    const auto mistakes = load(text, ignored);
    ASSERT_FALSE(mistakes.empty()) << row.line;
    const configuration_mistake& last = mistakes.back();
    EXPECT_EQ(last.line, row.table == std::string("sever") ? 3U : 4U) << row.line;
    EXPECT_NE(last.text.find(row.text), std::string::npos) << last.text;
    EXPECT_EQ(mistake_text(last), folder_.path("c.toml") + ":" + std::to_string(last.line) + ": " + last.text);
  }
}

TEST_F(Configuration, BrokerAndItsAppHaveDefaultsAndSecrets) {
  struct row {
    const char* text;
    const char* mistake;  ///< empty: none
  };
  const row rows[] = {
      {"[broker]\nencryption = 'none'", ""},
      {"[broker]\nkey_file = 'key'", ""},
      {"[broker]", "openssl rand -out key 32"},
      {"[broker]\nencryption = 'none'\ndirectory = 'spool/b'\n[server]\nspool_directory = 'spool'",
       "lies in spool_directory"},
      {"[broker]\nencryption = 'none'\ndirectory = 'link/b'\n[server]\nspool_directory = 'spool'",
       "lies in spool_directory"},
      {"[broker]\nkey_file = 'spool/key'\n[server]\nspool_directory = 'spool'", "key_file in [broker]: "},
      {"[broker]\nencryption = 'none'\ndirectory = 'spool2'\n[server]\nspool_directory = 'spool'", ""},
  };
  std::filesystem::create_directory(folder_.path("spool"));
  std::filesystem::create_directory_symlink("spool", folder_.path("link"));
  for (const row& row : rows) {
    configuration read;
    const auto mistakes = load(std::string("[accounts]\nfile = 'not-there-yet.toml'\n") + row.text + "\n", read);
    EXPECT_EQ(mistakes.empty(), *row.mistake == '\0') << row.text;
    for (const auto& mistake : mistakes)
      EXPECT_NE(mistake.text.find(row.mistake), std::string::npos) << row.text << ": " << mistake.text;
    EXPECT_EQ(read.broker_directory.find(folder_.path()), 0U);
  }
  configuration read;
  ASSERT_TRUE(load(R"([accounts]
file = 'accounts.toml'
[box]
authorize_url = "http://127.8.0.1:8080/a"
token_url = "http://[::1]:8080/oauth2/token"
client_id = "me"
client_secret_file = "key"
redirect = "http://LocalHost/callback"
[broker]
encryption = "none"
user = "other"
idle_renewal = 5184000
)",
                   read)
                  .empty());
  EXPECT_EQ(read.box_revoke_url, "http://[::1]:8080/oauth2/revoke");
  EXPECT_EQ(read.broker_directory, folder_.path("broker"));
  EXPECT_EQ(read.broker_encryption, store_encryption::none);
  EXPECT_EQ(read.broker_user, "other");
  EXPECT_EQ(read.broker_idle_renewal_s, 5184000U);
  EXPECT_EQ(read.box_client_secret_file, folder_.path("key"));
}

/// Ends with 0 when there are as many mistakes.
[[noreturn]] void load_as(uid_t user, const std::string& file, std::size_t mistakes) {
  configuration ignored;
  if (setuid(user) != 0) std::exit(2);
  std::exit(configuration_load(file, ignored).size() == mistakes ? 0 : 1);
}

TEST_F(Configuration, FilesOfTheBrokersUserAreLeftToIt) {
  constexpr uid_t OTHER = 65534;
  if (geteuid() != 0) GTEST_SKIP() << "only root becomes others";
  chmod(folder_.path().c_str(), 0755);
  write("accounts.toml", "", 0600);
  const std::string file = folder_.write(
      "c.toml", "[accounts]\nfile = 'accounts.toml'\n[box]\nclient_secret_file = 'key'\n[broker]\nkey_file = 'key'\n");
  EXPECT_EXIT(load_as(OTHER, file, 0), testing::ExitedWithCode(0), "");
  write("key", "", 0);
  ASSERT_EQ(chown(folder_.path("key").c_str(), OTHER, OTHER), 0);
  EXPECT_EXIT(load_as(OTHER, file, 2), testing::ExitedWithCode(0), "") << "its own, and it cannot read it";
}

TEST_F(Configuration, SystemdPassesTheKey) {
  configuration config;
  ASSERT_EQ(load("[accounts]\nfile = 'accounts.toml'\n[broker]\n", config).size(), 1U);
  write("store-key", std::string(32, '\n') + "\n", 0440);
  ASSERT_EQ(setenv("CREDENTIALS_DIRECTORY", folder_.path().c_str(), 1), 0);
  EXPECT_TRUE(load("[accounts]\nfile = 'accounts.toml'\n[broker]\n", config).empty());
  secret key;
  EXPECT_EQ(store_key_read(config, key), "");
  unsetenv("CREDENTIALS_DIRECTORY");
  EXPECT_EQ(key.text(), std::string(32, '\n')) << "one newline is the file's, the others are the key's";
}

TEST_F(Configuration, WhatIsMissingIsNamedAndAllMistakesComeTogether) {
  configuration ignored;
  const auto mistakes = load("x = 1\n[tls]\n[server]\nmax_sessions = 0\n", ignored);
  ASSERT_EQ(mistakes.size(), 5U);
  EXPECT_EQ(mistake_text(mistakes[0]), folder_.path("c.toml") + ": file in [accounts] is missing");
  EXPECT_EQ(mistakes[1].line, 1U);
  EXPECT_EQ(mistakes[2].text, "certificate in [tls] is missing");
  EXPECT_EQ(mistakes[3].line, 2U);
  EXPECT_EQ(mistakes[4].line, 4U);
  EXPECT_EQ(configuration_load(folder_.path("none.toml"), ignored).at(0).text,
            "cannot be opened: No such file or directory");
  EXPECT_EQ(configuration_load(folder_.path(), ignored).size(), 1U);
  const auto tls = load("[accounts]\nfile='accounts.toml'\n[tls]\nkey='c.toml'\ncertificate='c.toml'\n", ignored);
  ASSERT_EQ(tls.size(), 1U);
  EXPECT_EQ(tls[0].line, 3U);
  EXPECT_NE(tls[0].text.find("no certificate"), std::string::npos) << tls[0].text;
}

TEST_F(Configuration, WhatIsNotShownAndNotAsked) {
  configuration ignored;
  const auto mistakes = load("[accounts]\nfile = 'accounts.toml'\n[box]\nproxy = 'http://u:hidden@h/'\n", ignored);
  ASSERT_EQ(mistakes.size(), 1U);
  EXPECT_EQ(mistakes[0].text.find("hidden"), std::string::npos) << mistakes[0].text;
  configuration other;
  EXPECT_TRUE(load("[accounts]\nfile = 'accounts.toml'\n[storage]\ndsi = 'fake'\npolicy = 'x'\n"
                   "[storage.settings]\napi_per_second = 0\n",
                   other)
                  .empty())
      << "another storage's settings mean what it says";
}

}  // namespace
}  // namespace tarvex::server
