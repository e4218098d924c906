#pragma once

#include "api/call.h"

#include <string_view>

namespace tarvex::emulator {

/// What files, folders and web links have in common. `missing` is the kind that a 404 names.

[[nodiscard]] response item_get(call& of, item_type type, std::string_view missing);

/// PUT: any of name, parent, description, content times (files) and url (web links).
[[nodiscard]] response item_update(call& of, item_type type, std::string_view missing);

/// DELETE: into the trash, or away at once where the account has none.
[[nodiscard]] response item_delete(call& of, item_type type, std::string_view missing);

}  // namespace tarvex::emulator
