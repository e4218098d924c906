#pragma once

#include "account/account_files.h"

#include <string>

namespace tarvex::server {

/// Has Box end an account's tokens, and forgets them; the account stays, for a sign-in anew. Throws account_failure.
/// \param force  forget them also when Box cannot be told
void account_sign_out(account_files& files, const std::string& name, bool force);

/// Removes an account, from the accounts file first, so that nobody logs in any more; then as account_sign_out.
void account_remove(account_files& files, const std::string& name, bool force);

}  // namespace tarvex::server
