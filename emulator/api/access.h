#pragma once

#include "api/call.h"

namespace tarvex::emulator {

/// What a user may do with an item: all with an own one, with another's what the roles of the collaborations on it and
/// on the folders above it give.
enum access_right : unsigned {
  MAY_SEE = 1,
  MAY_DOWNLOAD = 2,
  MAY_UPLOAD = 4,
  MAY_EDIT = 8,  // rename, move, delete, new version, metadata
  MAY_SHARE = 16,
  MAY_INVITE = 32,
  MAY_ALL = 63,
};

/// The rights of a collaboration's role; 0 for what is no role.
[[nodiscard]] unsigned access_of_role(std::string_view role);

/// The rights of the caller. Inside a transaction.
[[nodiscard]] unsigned access_rights(const call& of, const item& subject);

/// Throws 403 `access_denied_insufficient_permissions` without that right.
void access_require(const call& of, const item& subject, access_right right);

/// Whose tree a folder is in; of the root the caller's own.
[[nodiscard]] std::int64_t access_owner(const call& of, std::int64_t folder);

/// The items of others that the caller was invited to, as the root shows them.
[[nodiscard]] std::vector<item> access_invited(const call& of);

}  // namespace tarvex::emulator
