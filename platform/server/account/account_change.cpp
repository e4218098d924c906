#include "account/account_change.h"

#include "account/account_failure.h"
#include "account/password_question.h"
#include "account/terminal.h"
#include "config/account_setting.h"
#include "config/secret_file.h"

#include <utility>

namespace tarvex::server {

namespace {

/// The account may have been removed since it was looked at.
void put(const account_files& files, const std::string& name, const std::vector<toml_setting>& settings) {
  files.change_accounts([&](accounts_edit& edit) {
    if (!edit.accounts(files.has_store()).accounts.contains(name)) return "there is no account \"" + name + "\"";
    return edit.put(name, settings);
  });
}

}  // namespace

void account_set(const account_files& files, const std::string& name, const std::vector<std::string>& settings) {
  (void)files.account_named(name);
  std::vector<toml_setting> parsed;
  for (const std::string& text : settings) {
    toml_setting setting;
    const std::string error = account_setting_parse(text, setting);
    if (!error.empty()) throw account_failure(account_exit::wrong_use, error);
    parsed.push_back(std::move(setting));
  }
  put(files, name, parsed);
}

void account_password(const account_files& files, const std::string& name, const std::string& file) {
  (void)files.account_named(name);
  put(files, name, {{"password", toml_value(new_password_hash(name, file))}});
}

void account_rekey(account_files& files, const std::string& new_key_file) {
  token_store& store = files.store();
  secret key;
  if (const std::string error = store_key_file_read(new_key_file, key); !error.empty())
    throw account_failure(account_exit::wrong_use, error);
  if (const store_error error = store.rekey(new_key_file); !error.empty())
    throw account_failure(account_exit::refused, "the records are not all sealed with the new key yet: " + error +
                                                     "; run the same again when this is mended");
  const std::string& path = files.config().broker_key_file;
  terminal_note(path.empty() ? "All records are sealed with the new key. Put it in the place of systemd's credential "
                               "\"store-key\" and restart the server."
                             : "All records are sealed with the new key, which " + path + " holds now. Remove " +
                                   new_key_file + ".");
}

}  // namespace tarvex::server
