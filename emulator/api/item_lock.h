#pragma once

#include "api/call.h"

namespace tarvex::emulator {

/// The lock of a file as it is kept: the members that Box shows, "owner" (a user's id) and "until" (seconds since
/// 1970, 0: for ever); null without one that still holds. Inside a transaction.
[[nodiscard]] json_ptr lock_of(const call& of, const item& file);

/// The same as Box shows it; JSON's null without one.
[[nodiscard]] json_ptr lock_json(const call& of, const item& file);

/// Puts the `lock` member of a request into force: an object, or null to unlock. Throws 400, and 403 when the lock is
/// somebody else's.
void lock_apply(const call& of, const item& file, const json_t* wanted);

}  // namespace tarvex::emulator
