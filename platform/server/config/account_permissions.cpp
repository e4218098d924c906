#include "config/account_permissions.h"

#include "config/choice.h"

namespace tarvex::server {

namespace {

constexpr choice<account_permissions> PERMISSIONS[] = {{"full", account_permissions::full},
                                                       {"read-only", account_permissions::read_only},
                                                       {"upload-only", account_permissions::upload_only}};

}  // namespace

std::string_view account_permissions_text(account_permissions permissions) {
  return choice_name<account_permissions>(PERMISSIONS, permissions);
}

std::optional<account_permissions> account_permissions_parse(std::string_view text) {
  return choice_value<account_permissions>(PERMISSIONS, text);
}

std::string account_permissions_known() {
  return choice_names<account_permissions>(PERMISSIONS);
}

}  // namespace tarvex::server
