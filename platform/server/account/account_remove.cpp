#include "account/account_remove.h"

#include "account/account_failure.h"
#include "account/terminal.h"
#include "base/wall_clock.h"

#include <fmt/core.h>

namespace tarvex::server {

namespace {

using reading = token_store::reading;

/// Why Box could not be told that a record's tokens are to end; empty: it has been, or there are none that live.
std::string revoke(const account_files& files, const token_record& record) {
  const auto now = wall_clock();
  const bool renewable = !record.current.refresh.text().empty() && !record.sign_in_needed;
  if (!renewable && record.current.expires_at <= now) return {};
  const secret& token = renewable ? record.current.refresh : record.current.access;
  try {
    return token_revoke(files.endpoint(), account_app(files, record), token.text());
  } catch (const account_failure& failure) {
    return failure.what();
  }
}

/// \return whether there was a record.
bool forget(account_files& files, const std::string& name, bool force, const std::string& done) {
  const token_store::lock held = files.hold_record(name);
  const reading found = files.store().read(name);
  if (found.how == reading::verdict::missing) return false;
  const std::string error = found.record ? revoke(files, *found.record) : found.error;
  if (!error.empty() && !force)
    throw account_failure(account_exit::refused,
                          fmt::format("{}its tokens are not revoked and stay here: {}; run the same again, or with "
                                      "--force to forget them all the same",
                                      done, error));
  if (!error.empty()) terminal_note("Box could not be told, and its tokens live until they expire: " + error);
  const store_error failed = files.store().remove(name);
  if (!failed.empty()) throw account_failure(account_exit::refused, done + "its record cannot be removed: " + failed);
  return true;
}

}  // namespace

void account_sign_out(account_files& files, const std::string& name, bool force) {
  const account who = files.account_named(name);
  if (!who.credential.empty())
    throw account_failure(account_exit::wrong_use, fmt::format("\"{}\" has a credential file ({}), whose tokens others "
                                                               "keep; there is nothing to sign out here",
                                                               name, who.credential));
  const bool was_signed_in = forget(files, name, force, "");
  terminal_note(fmt::format("\"{}\" {}.", name, was_signed_in ? "is signed out" : "was not signed in"));
}

void account_remove(account_files& files, const std::string& name, bool force) {
  const bool listed = files.accounts().contains(name);
  const bool recorded = files.record_of(name).how != reading::verdict::missing;
  if (!listed && !recorded) (void)files.account_named(name);  // says that there is none
  if (listed) files.change_accounts([&](accounts_edit& edit) { return edit.remove(name); });
  if (recorded) (void)forget(files, name, force, "the account is removed, but ");
  terminal_note(fmt::format("\"{}\" is removed.", name));
}

}  // namespace tarvex::server
