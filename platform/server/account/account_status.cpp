#include "account/account_status.h"

#include "account/credential_file.h"
#include "base/wall_clock.h"
#include "config/accounts_state.h"

#include <utility>

namespace tarvex::server {

namespace {

using reading = token_store::reading;

constexpr const char* READY = "ready";
constexpr const char* SIGN_IN_NEEDED = "sign-in needed";
constexpr const char* BROKEN = "broken";
/// The store's own words name its files.
constexpr const char* UNREADABLE = "the broker's record cannot be read; account test says why";

/// What the accounts file says is stronger than what the store says.
std::string state_of(const account& who, const char* otherwise) {
  const auto now = wall_clock();
  const auto closed = account_closed(who, now);
  return closed ? std::string(account_closure_text(*closed)) : otherwise;
}

account_status file_status(const account& who) {
  const credential_content content = credential_file_read(who);
  return {.who = who,
          .grant = "file",
          .state = state_of(who, READY),
          .box_user = content.box_user,
          .max_upload = content.max_upload,
          .token_expires_at = content.expires_at,
          .last_error = who.mistake.empty() ? content.error : who.mistake};
}

/// Without a record nobody knows by which grant it was had; a person's consent is what an account has by default.
account_status unknown_status(const account& who, const reading& found) {
  const bool unreadable = found.how == reading::verdict::unreadable;
  return {.who = who,
          .grant = std::string(grant_word(grant_kind::box)),
          .state = state_of(who, unreadable ? BROKEN : SIGN_IN_NEEDED),
          .last_error = who.mistake.empty() && unreadable ? UNREADABLE : who.mistake};
}

}  // namespace

account_status account_status_of(const account_files& files, const account& who) {
  if (!who.credential.empty()) return file_status(who);
  const reading found = files.record_of(who.name);
  if (!found.record) return unknown_status(who, found);
  const token_record& record = *found.record;
  return {.who = who,
          .grant = std::string(grant_word(record.grant)),
          .state = state_of(who, record.sign_in_needed ? SIGN_IN_NEEDED : READY),
          .box_user = record.box_user,
          .login = record.box_login,
          .max_upload = record.max_upload,
          .token_expires_at = record.current.expires_at,
          .last_error = who.mistake.empty() ? record.last_error : who.mistake};
}

}  // namespace tarvex::server
