#pragma once

#include "account/account_files.h"
#include "broker/token_record.h"

#include <string>

namespace tarvex::server {

/// How an account is to be signed in.
struct add_wish {
  std::string name;
  grant_kind grant = grant_kind::box;
  bool with_browser = true;         ///< of box
  std::string app_file = {};        ///< of jwt: as downloaded from Box
  std::string algorithm = "RS256";  ///< of jwt
  std::string box_user = {};        ///< id; box: empty
  std::string password_file = {};   ///< for a new account; empty: the person is asked
};

/// Signs an account in at Box, and adds it when it is new. An account that exists keeps its password and its settings.
/// Nothing is written before Box has said yes and told who the user is. Throws account_failure, whose text says what
/// was done when that is not nothing.
void account_add(account_files& files, const add_wish& wish);

}  // namespace tarvex::server
