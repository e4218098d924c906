#pragma once

#include "api/call.h"

namespace tarvex::emulator {

/// The `permissions` of an item: what the caller may do with it. Inside a transaction.
[[nodiscard]] json_ptr permissions_json_of(const call& of, const item& subject);

}  // namespace tarvex::emulator
