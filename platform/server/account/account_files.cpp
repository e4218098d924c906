#include "account/account_files.h"

#include "account/account_failure.h"
#include "broker/renewals.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>
#include <vector>

namespace tarvex::server {

namespace {

constexpr const char* BOX_API = "https://api.box.com";
/// The broker may be at a renewal, which takes a minute and a half at most.
constexpr std::chrono::seconds RECORD_PATIENCE{120};
/// A person waits. What is given up then stays noted, and the broker goes on with it.
constexpr std::chrono::seconds RENEWAL_PATIENCE{15};

std::vector<std::string> lines_of(const std::vector<configuration_mistake>& mistakes) {
  std::vector<std::string> lines;
  lines.reserve(mistakes.size());
  for (const auto& mistake : mistakes) lines.push_back(mistake_text(mistake));
  return lines;
}

configuration usable_configuration(const std::string& file) {
  configuration config;
  const auto mistakes = configuration_load(file, config);
  if (!mistakes.empty()) throw account_failure(account_exit::wrong_use, lines_of(mistakes));
  return config;
}

bool is_missing(const std::string& path) {
  return access(path.c_str(), F_OK) != 0 && errno == ENOENT;
}

/// A new accounts file that root has made is to be read by the broker.
void give_to_broker(const std::string& file, const std::string& folder) {
  struct stat status = {};
  if (geteuid() != 0 || folder.empty()) return;
  if (stat(folder.c_str(), &status) == 0 && chown(file.c_str(), status.st_uid, status.st_gid) == 0) return;
  throw account_failure(account_exit::refused, file + " cannot be given to the broker's user: " + std::strerror(errno));
}

}  // namespace

account_files::account_files(const std::string& file)
    : file_(file), config_(usable_configuration(file)), endpoint_(configured_endpoint(config_)) {
  if (!has_store()) return;
  const store_error error = store_.open(config_);
  if (!error.empty()) throw account_failure(account_exit::wrong_use, "the broker's store cannot be used: " + error);
}

std::string account_files::api_base() const {
  return config_.box_api_base.empty() ? BOX_API : config_.box_api_base;
}

account_map account_files::accounts() const {
  if (is_missing(config_.accounts_file)) return {};
  accounts_reading read = accounts_load(config_.accounts_file, has_store());
  if (!read.readable) throw account_failure(account_exit::wrong_use, lines_of(read.mistakes));
  return std::move(read.accounts);
}

account account_files::account_named(const std::string& name) const {
  const account_map all = accounts();
  const auto found = all.find(name);
  if (found == all.end())
    throw account_failure(account_exit::wrong_use, "there is no account \"" + name + "\" in " + config_.accounts_file);
  return found->second;
}

void account_files::change_accounts(const std::function<std::string(accounts_edit& edit)>& change) const {
  const bool is_new = is_missing(config_.accounts_file);
  accounts_edit edit;
  std::string error = edit.open(config_.accounts_file);
  if (error.empty()) error = change(edit);
  if (error.empty()) error = edit.save();
  if (!error.empty()) throw account_failure(account_exit::wrong_use, error);
  if (is_new && !is_missing(config_.accounts_file)) give_to_broker(config_.accounts_file, config_.broker_directory);
}

token_store& account_files::store() {
  if (!has_store())
    throw account_failure(account_exit::wrong_use, file_ +
                                                       " has no [broker], which keeps the tokens of such accounts: "
                                                       "add the table with directory and key_file");
  return store_;
}

token_store::lock account_files::hold_record(const std::string& name) {
  token_store::lock held = store().lock_account(name, RECORD_PATIENCE);
  if (!held)
    throw account_failure(account_exit::refused,
                          "the record of \"" + name + "\" is in use, or cannot be locked; try again");
  return held;
}

token_store::reading account_files::record_of(const std::string& name) const {
  return has_store() ? store_.read(name) : token_store::reading{};
}

renewal_setup account_files::renewal() {
  return {.store = store(),
          .endpoint = endpoint_,
          .app = [this](oauth_app& out) { return configured_app(config_, out); },
          .patience = RENEWAL_PATIENCE};
}

oauth_app account_app(const account_files& files, const token_record& record) {
  oauth_app app;
  if (record.app) {
    app.client_id = record.app->app.client_id;
    app.client_secret = secret(std::string(record.app->app.client_secret.text()));
    return app;
  }
  const std::string error = configured_app(files.config(), app);
  if (!error.empty()) throw account_failure(account_exit::wrong_use, error);
  return app;
}

}  // namespace tarvex::server
