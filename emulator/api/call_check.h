#pragma once

#include "api/call.h"

#include <cstdint>
#include <string_view>

namespace tarvex::emulator {

/// Throws `item_name_invalid` or `item_name_too_long`.
void call_check_name(std::string_view name);

/// Throws 403 without the right to change a file, 403 `access_denied_item_locked` when somebody else has locked a file,
/// and 409 when its folder is blocked.
void call_check_writable(const call& of, const item& file);

/// Throws 412 when an If-Match header names another etag than the item's.
void call_check_match(const call& of, const item& subject);

/// Throws 403 when a file of that size is too large, for a file or for what is left of the storage.
void call_check_quota(const call& of, std::int64_t size);

/// The kinds of calls that Box tells a taken name to in different forms.
enum class conflict_place { UPLOAD, CREATE, UPDATE };

/// Throws 409 when a name is taken in a folder by another item than `self` (null: by any), or is reserved.
void call_check_free(const call& of, std::int64_t folder, std::string_view name, const item* self,
                     conflict_place place);

/// Throws 409 `operation_blocked_temporary` when a folder or one above it is locked.
void call_check_unlocked(const call& of, std::int64_t folder);

}  // namespace tarvex::emulator
