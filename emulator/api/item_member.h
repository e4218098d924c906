#pragma once

#include "api/call.h"

namespace tarvex::emulator {

/// What a PUT may say of an item beyond the columns of its row: shared_link, lock, tags. Puts all that is there into
/// force, and tells whether anything was. Throws 400 for a member that this Box does not keep: to drop it in silence
/// would let a client believe in it. Inside a transaction.
bool item_members_apply(const call& of, const json_t* body, const item& subject);

/// The tags of an item, an array.
[[nodiscard]] json_ptr item_tags_json(const call& of, const item& subject);

}  // namespace tarvex::emulator
