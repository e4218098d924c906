#pragma once

#include "api/call.h"

namespace tarvex::emulator {

/// The shared link of an item as Box shows it; JSON's null without one. Inside a transaction.
[[nodiscard]] json_ptr shared_link_json(const call& of, const item& subject);

/// Puts the `shared_link` member of a request into force: an object (members that are absent stay, or take Box's
/// defaults), or null to end it. Throws 400. Inside a transaction.
void shared_link_apply(const call& of, const item& subject, const json_t* wanted);

/// GET /2.0/shared_items: the item that the header BoxApi names by its link ("shared_link=URL&shared_link_password=P").
[[nodiscard]] response shared_item_get(call& of);

}  // namespace tarvex::emulator
