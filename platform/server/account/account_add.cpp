#include "account/account_add.h"

#include "account/account_failure.h"
#include "account/password_question.h"
#include "account/sign_in.h"
#include "account/terminal.h"
#include "base/regular_file.h"
#include "base/wall_clock.h"
#include "broker/renewals.h"
#include "config/account_keys.h"
#include "oauth/box_user.h"

#include <fmt/core.h>

#include <optional>
#include <utility>

namespace tarvex::server {

namespace {

using token_verdict = token_answer::verdict;

[[noreturn]] void fail(account_exit how, const std::string& text) {
  throw account_failure(how, text);
}

/// The account of before, when there is one.
std::optional<account> account_before(const account_files& files, const std::string& name) {
  if (const std::string error = account_name_error(name); !error.empty())
    fail(account_exit::wrong_use, "\"" + name + "\": " + error);
  account_map all = files.accounts();
  const auto found = all.find(name);
  if (found == all.end()) return std::nullopt;
  if (found->second.credential.empty()) return std::move(found->second);
  fail(account_exit::wrong_use,
       fmt::format("\"{}\" has a credential file ({}), which others keep fresh; take the key \"credential\" out of {} "
                   "first, or choose another name",
                   name, found->second.credential, files.config().accounts_file));
}

jwt_app app_of_file(const add_wish& wish) {
  constexpr std::size_t APP_FILE_MIB = 1;
  std::string content;
  if (const auto failure = regular_file_read(wish.app_file, file_trust::anyone, APP_FILE_MIB, content))
    fail(account_exit::wrong_use, wish.app_file + " " + failure->text);
  const auto ask_passphrase = [&] {
    if (!terminal_has_person())
      fail(account_exit::wrong_use, wish.app_file + " has an encrypted key and no passphrase; run this on a terminal");
    return terminal_ask_secret("Passphrase of the key in " + wish.app_file);
  };
  jwt_app app;
  app.algorithm = wish.algorithm;
  const std::string error = jwt_app_parse(std::move(content), ask_passphrase, app);
  if (!error.empty()) fail(account_exit::wrong_use, wish.app_file + ": " + error);
  return app;
}

/// A sign-in on its way, until it is written down.
class account_sign_in {
 public:
  account_sign_in(account_files& files, const add_wish& wish) : files_(files), wish_(wish) {}

  void run();

 private:
  void check();
  void get_tokens();
  token_answer exchange_code();
  void meet_user();
  void keep_record();
  void keep_account();
  /// Gives the tokens back that nobody will use.
  void drop_tokens();
  void refuse_other_user(const token_store::reading& now);

  account_files& files_;
  const add_wish& wish_;
  std::optional<account> before_;
  std::optional<std::string> password_hash_;
  token_record fresh_;
  box_user user_;
  std::unique_ptr<redirect_listener> browser_;
};

/// All that can be wrong before Box is asked, so that nobody signs in for nothing.
void account_sign_in::check() {
  (void)files_.store();
  before_ = account_before(files_, wish_.name);
  fresh_.grant = wish_.grant;
  fresh_.box_user = wish_.box_user;
  if (wish_.grant == grant_kind::jwt) {
    fresh_.app = app_of_file(wish_);
  } else {
    (void)account_app(files_, fresh_);
  }
  if (!before_ || (before_->password.empty() && before_->certificates.empty())) {
    password_hash_ = new_password_hash(wish_.name, wish_.password_file);
  } else if (!wish_.password_file.empty()) {
    terminal_note("The account exists: its password stays as it is (change it with: account password).");
  }
}

token_answer account_sign_in::exchange_code() {
  consent given = ask_for_consent(files_.config(), wish_.with_browser);
  browser_ = std::move(given.browser);
  return token_ask(
      files_.endpoint(), account_app(files_, fresh_),
      {{"grant_type", "authorization_code"}, {"code", given.code.text()}, {"redirect_uri", given.redirect}}, true, -1);
}

void account_sign_in::get_tokens() {
  token_answer got = wish_.grant == grant_kind::box ? exchange_code() : renewal_ask(files_.renewal(), fresh_);
  if (got.how == token_verdict::again) fail(account_exit::refused, "Box gives no token now: " + got.reason);
  if (got.how != token_verdict::granted)
    fail(account_exit::refused, "Box gives no token: " + got.reason + refusal_hint(got.reason));
  fresh_.current = {std::move(got.access_token), std::move(got.refresh_token), got.expires_at};
}

void account_sign_in::drop_tokens() {
  const token_pair& pair = fresh_.current;
  const std::string& token = pair.refresh.text().empty() ? pair.access.text() : pair.refresh.text();
  if (!token.empty()) (void)token_revoke(files_.endpoint(), account_app(files_, fresh_), token);
}

void account_sign_in::refuse_other_user(const token_store::reading& now) {
  if (!before_ || !now.record || now.record->box_user == user_.id) return;
  fail(
      account_exit::refused,
      fmt::format("\"{}\" belongs to Box user {} ({}), and this was user {} ({}); sign in as the former, or remove the "
                  "account first",
                  wish_.name, now.record->box_user, now.record->box_login, user_.id, user_.login));
}

void account_sign_in::meet_user() {
  box_user_answer answer = box_user_ask(files_.endpoint().https, files_.api_base(), fresh_.current.access.text());
  if (!answer.error.empty()) fail(account_exit::refused, "Box does not say who the user is: " + answer.error);
  user_ = std::move(answer.user);
  if (!wish_.box_user.empty() && wish_.box_user != user_.id)
    fail(account_exit::refused,
         fmt::format("Box gave a token of user {} ({}) and not of user {}", user_.id, user_.login, wish_.box_user));
  refuse_other_user(files_.record_of(wish_.name));
}

void account_sign_in::keep_record() {
  const token_store::lock held = files_.hold_record(wish_.name);
  token_store::reading now = files_.record_of(wish_.name);
  refuse_other_user(now);
  fresh_.generation = 1;
  if (now.record) {
    fresh_.generation = now.record->generation + 1;
    fresh_.previous = std::move(now.record->current);
  }
  fresh_.renewed_at = wall_clock();
  fresh_.box_user = user_.id;
  fresh_.box_login = user_.login;
  fresh_.max_upload = user_.max_upload;
  const store_error error = files_.store().write(wish_.name, fresh_);
  if (!error.empty())
    fail(account_exit::refused, "Box said yes, but its tokens cannot be kept, and nothing has changed here: " + error);
}

void account_sign_in::keep_account() {
  if (!password_hash_) return;
  try {
    files_.change_accounts([&](accounts_edit& edit) {
      return edit.put(wish_.name, {{"password", toml_value(*password_hash_)}});
    });
  } catch (const account_failure& failure) {
    fail(failure.how(),
         std::string("Box said yes, and its tokens are kept, but the account is not in the accounts file; "
                     "run the same once more when this is mended: ") +
             failure.what());
  }
}

void account_sign_in::run() {
  check();
  bool kept = false;
  try {
    get_tokens();
    meet_user();
    keep_record();
    kept = true;
    keep_account();
  } catch (const account_failure& failure) {
    if (!kept) drop_tokens();
    if (browser_) browser_->show(false, std::string("You are not signed in. ") + failure.what());
    throw;
  }
  if (browser_) browser_->show(true, "You are signed in; close this page.");
  terminal_note(fmt::format("\"{}\" is signed in as {} (Box user {}).", wish_.name, user_.login, user_.id));
}

}  // namespace

void account_add(account_files& files, const add_wish& wish) {
  account_sign_in(files, wish).run();
}

}  // namespace tarvex::server
