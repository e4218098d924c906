#pragma once

#include "api/call.h"

#include <vector>

namespace tarvex::emulator {

inline constexpr std::string_view COLLABORATION_KIND = "collaboration";

/// The collaborations on an item itself; "user" and "role" of their values count. Inside a transaction.
[[nodiscard]] std::vector<record> collaborations_on(const call& of, const item& subject);

/// The roles that can be given, an array.
[[nodiscard]] json_ptr collaboration_roles_json();

/// POST /2.0/collaborations (users alone, who are in at once), GET, PUT (the role), DELETE of one, the pending ones
/// (there are none), and those of a file or a folder.
[[nodiscard]] response collaboration_create(call& of);
[[nodiscard]] response collaboration_get(call& of);
[[nodiscard]] response collaboration_update(call& of);
[[nodiscard]] response collaboration_delete(call& of);
[[nodiscard]] response collaborations_pending(call& of);
[[nodiscard]] response collaborations_of_file(call& of);
[[nodiscard]] response collaborations_of_folder(call& of);

}  // namespace tarvex::emulator
