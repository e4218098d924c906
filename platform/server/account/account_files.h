#pragma once

#include "broker/renewal.h"
#include "broker/token_store.h"
#include "config/accounts.h"
#include "config/accounts_edit.h"
#include "config/configuration.h"

#include <functional>
#include <string>

namespace tarvex::server {

/// What account commands work on: the configuration, the accounts file and the broker's store. A server may run
/// meanwhile. Functions throw account_failure. One thread.
class account_files {
 public:
  /// \param file  of the configuration
  explicit account_files(const std::string& file);
  account_files(const account_files&) = delete;
  account_files& operator=(const account_files&) = delete;

  [[nodiscard]] const configuration& config() const { return config_; }
  [[nodiscard]] const token_endpoint& endpoint() const { return endpoint_; }
  /// Where Box's API is, without a slash at its end.
  [[nodiscard]] std::string api_base() const;

  /// What the accounts file says. One that does not exist says nothing.
  [[nodiscard]] account_map accounts() const;
  /// One of them.
  [[nodiscard]] account account_named(const std::string& name) const;
  /// Changes the accounts file as `change` wants, which returns what is wrong; empty: nothing.
  void change_accounts(const std::function<std::string(accounts_edit& edit)>& change) const;

  [[nodiscard]] bool has_store() const { return !config_.broker_directory.empty(); }
  /// The broker's store; a failure where the configuration has none.
  [[nodiscard]] token_store& store();
  /// Holds the account's record, for as long as what comes back lives.
  [[nodiscard]] token_store::lock hold_record(const std::string& name);
  /// What the store knows of an account; `missing` without a store.
  [[nodiscard]] token_store::reading record_of(const std::string& name) const;

  /// How tokens are had. Borrows from this object.
  [[nodiscard]] renewal_setup renewal();

 private:
  const std::string file_;
  configuration config_;
  token_endpoint endpoint_;
  token_store store_;
};

/// The app that an account's tokens belong to: the record's own, or the configuration's. Throws account_failure.
[[nodiscard]] oauth_app account_app(const account_files& files, const token_record& record);

}  // namespace tarvex::server
