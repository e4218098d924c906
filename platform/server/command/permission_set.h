#pragma once

#include "config/accounts.h"

#include <initializer_list>

namespace tarvex::server {

/// Which permissions of accounts suffice for a command. There is no empty set and no default, so that every row of a
/// table has to name its own.
class permission_set {
 public:
  constexpr permission_set(std::initializer_list<account_permissions> members) {
    for (const account_permissions member : members) bits_ |= bit(member);
  }
  constexpr bool holds(account_permissions which) const { return (bits_ & bit(which)) != 0; }

 private:
  static constexpr unsigned bit(account_permissions which) { return 1U << static_cast<unsigned>(which); }

  unsigned bits_ = 0;
};

constexpr permission_set EVERYBODY{account_permissions::full, account_permissions::read_only,
                                   account_permissions::upload_only};
constexpr permission_set READERS{account_permissions::full, account_permissions::read_only};
constexpr permission_set UPLOADERS{account_permissions::full, account_permissions::upload_only};
constexpr permission_set FULL_ONLY{account_permissions::full};

}  // namespace tarvex::server
