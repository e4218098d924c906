#include "account/account_trial.h"

#include "account/account_check.h"
#include "account/box_folder_path.h"
#include "account/credential_file.h"
#include "account/sign_in.h"
#include "base/wall_clock.h"
#include "config/accounts_state.h"
#include "oauth/box_user.h"

#include <fmt/core.h>

#include <cstdlib>
#include <utility>
#include <vector>

namespace tarvex::server {

namespace {

using check_outcome = account_check::outcome;
using std::chrono::seconds;

constexpr seconds LARGEST_CLOCK_OFFSET{30};

/// What sessions of an account would be given.
struct tested_token {
  secret access;
  std::string box_user;
  std::uint64_t max_upload = 0;
  bool of_app = false;  ///< had without a person
};

/// Tries out one account.
class account_trial {
 public:
  account_trial(account_files& files, account who) : files_(files), who_(std::move(who)) {}

  [[nodiscard]] std::vector<account_check> run();

 private:
  void look_at_state();
  [[nodiscard]] account_check token();
  [[nodiscard]] account_check token_of_file();
  [[nodiscard]] account_check user();
  [[nodiscard]] account_check root();
  [[nodiscard]] account_check upload_limit() const;
  [[nodiscard]] account_check clock() const;
  [[nodiscard]] std::string empty_root_hint() const;
  [[nodiscard]] std::string status_hint(int status) const;
  [[nodiscard]] std::string sign_in_command() const;

  account_files& files_;
  const account who_;
  tested_token token_;
  box_user_answer answer_;
  std::chrono::sys_seconds asked_{};
  std::vector<account_check> checks_;
};

account_check with_life(std::chrono::sys_seconds end) {
  const auto left = end - wall_clock();
  return {.name = "token", .text = fmt::format("good for {} s", left.count())};
}

void account_trial::look_at_state() {
  const auto closed = account_closed(who_, wall_clock());
  if (!closed) return;
  checks_.push_back(
      {.name = "state",
       .how = check_outcome::warning,
       .text = fmt::format("the account is {}, and nobody is served by it", account_closure_text(*closed)),
       .hint = who_.mistake});
}

std::string account_trial::sign_in_command() const {
  const auto found = files_.record_of(who_.name);
  const grant_kind grant = found.record ? found.record->grant : grant_kind::box;
  return fmt::format("sign in anew: tarvex-gridftp-server account add {} --{}", who_.name, grant_word(grant));
}

std::string account_trial::status_hint(int status) const {
  if (status == 403)
    return "tick \"Read and write all files and folders stored in Box\" in the app's configuration, have an "
           "administrator authorise the app anew, and sign in once more";
  if (status != 401) return {};
  if (!who_.credential.empty()) return "whatever keeps the credential file fresh has to write it anew";
  return "the token was revoked at Box, or replaced elsewhere; if the server gets no other one, " + sign_in_command();
}

account_check account_trial::token_of_file() {
  credential_content content = credential_file_read(who_);
  if (!content.error.empty()) return {.name = "token", .how = check_outcome::failed, .text = content.error};
  token_ = {std::move(content.access_token), std::move(content.box_user), content.max_upload};
  account_check check = with_life(*content.expires_at);
  if (*content.expires_at - wall_clock() >= LEAST_TOKEN_LIFE) return check;
  check.how = check_outcome::failed;
  check.text = "it has run out, or will in less than 100 s";
  check.hint = status_hint(401);
  return check;
}

account_check account_trial::token() {
  if (!who_.credential.empty()) return token_of_file();
  renewal_answer got = renew_account(files_.renewal(), who_.name, LEAST_TOKEN_LIFE, 0);
  if (got.how == renewal_answer::verdict::good) {
    token_record& record = *got.record;
    const account_check check = with_life(record.current.expires_at);
    token_ = {std::move(record.current.access), std::move(record.box_user), record.max_upload,
              record.grant != grant_kind::box};
    return check;
  }
  const bool final = got.how == renewal_answer::verdict::sign_in_needed;
  std::string hint = refusal_hint(got.reason);
  if (!hint.empty()) hint.erase(0, hint.find_first_not_of("; "));
  return {.name = "token",
          .how = check_outcome::failed,
          .text = (final ? "sign-in needed: " : "") + got.reason,
          .hint = final ? sign_in_command() : hint};
}

account_check account_trial::user() {
  constexpr const char* NAME = "users/me";
  // Also without a token: the answer's date tells Box's clock, and a clock that is off may be why there is none.
  answer_ = box_user_ask(files_.endpoint().https, files_.api_base(), token_.access.text());
  asked_ = wall_clock();
  if (token_.access.text().empty()) return {.name = NAME, .how = check_outcome::skipped, .text = "there is no token"};
  if (!answer_.error.empty())
    return {.name = NAME, .how = check_outcome::failed, .text = answer_.error, .hint = status_hint(answer_.status)};
  const box_user& user = answer_.user;
  if (user.id != token_.box_user)
    return {.name = NAME,
            .how = check_outcome::failed,
            .text = fmt::format("the token is of Box user {} ({}), and the account of {}", user.id, user.login,
                                token_.box_user)};
  return {.name = NAME, .text = fmt::format("{} ({}, Box user {})", user.name, user.login, user.id)};
}

std::string account_trial::empty_root_hint() const {
  if (!token_.of_app || who_.root != "/") return {};
  return fmt::format(
      "a service account begins with nothing: invite {} into a folder as a collaborator, \"Editor\" to "
      "let it write",
      answer_.user.login);
}

account_check account_trial::root() {
  constexpr const char* NAME = "root listing";
  if (!answer_.error.empty()) return {.name = NAME, .how = check_outcome::skipped, .text = "the token does not work"};
  const https_setup& https = files_.endpoint().https;
  const box_path_answer place = box_folder_find(https, files_.api_base(), token_.access.text(), who_.root);
  if (!place.error.empty())
    return {.name = NAME,
            .how = check_outcome::failed,
            .text = who_.root + ": " + place.error,
            .hint = "logins are refused until the folder is there: make it, or change root (account set)"};
  const box_folder_answer got = box_folder_ask(https, files_.api_base(), token_.access.text(), place.id);
  if (!got.error.empty())
    return {.name = NAME, .how = check_outcome::failed, .text = got.error, .hint = status_hint(got.status)};
  return {.name = NAME,
          .text = fmt::format("{} has {} {}", who_.root, got.entries, got.entries == 1 ? "entry" : "entries"),
          .hint = got.entries == 0 ? empty_root_hint() : ""};
}

account_check account_trial::upload_limit() const {
  constexpr const char* NAME = "upload limit";
  if (!answer_.error.empty()) return {.name = NAME, .how = check_outcome::skipped, .text = "the token does not work"};
  const std::uint64_t of_box = answer_.user.max_upload;
  std::string text = fmt::format("files of up to {} bytes", of_box);
  if (who_.max_upload != 0 && who_.max_upload < of_box)
    text = fmt::format("files of up to {} bytes by max_upload, {} by Box", who_.max_upload, of_box);
  if (token_.max_upload == of_box) return {.name = NAME, .text = text};
  return {.name = NAME,
          .how = check_outcome::warning,
          .text = fmt::format("{}, but {} when the account was signed in", text, token_.max_upload),
          .hint = who_.credential.empty() ? sign_in_command() : "correct max_upload in the credential file"};
}

account_check account_trial::clock() const {
  constexpr const char* NAME = "clock";
  if (!answer_.date) return {.name = NAME, .how = check_outcome::skipped, .text = "no answer of Box has told the time"};
  const auto offset = asked_ - *answer_.date;
  account_check check{.name = NAME, .text = fmt::format("{:+} s against Box", offset.count())};
  if (std::chrono::abs(offset) <= LARGEST_CLOCK_OFFSET) return check;
  check.how = check_outcome::warning;
  check.hint =
      "set this host's clock, with NTP: Box refuses assertions that are off by a minute, and tokens are renewed "
      "too early or too late";
  return check;
}

std::vector<account_check> account_trial::run() {
  look_at_state();
  checks_.push_back(token());
  checks_.push_back(user());
  checks_.push_back(root());
  checks_.push_back(upload_limit());
  checks_.push_back(clock());
  return std::move(checks_);
}

}  // namespace

bool account_try(account_files& files, const std::string& name, bool json) {
  const std::vector<account_check> checks = account_trial(files, files.account_named(name)).run();
  checks_print(name, checks, json);
  return checks_passed(checks);
}

}  // namespace tarvex::server
