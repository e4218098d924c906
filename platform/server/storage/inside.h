#pragma once

#include "storage/operation.h"
#include "storage/storage_session.h"

#include <optional>
#include <string>

namespace tarvex::server {

// What one operation asks of the plug-in while it is inside its work. Operation thread.

/// Asks for the attributes of one item. \param item  stays empty when the storage fails
/// \param session  of the plug-in, which is asked; null: the one in use
owned_result stat_inside(operation& op, const std::string& path, std::optional<item_stat>& item,
                         void* session = nullptr);

/// Has a folder listed, for what the storage learns by it.
owned_result list_inside(operation& op, const std::string& path);

/// Finds an item by listing its folder anew, whatever the storage knows of it. \param item  stays empty when there is
/// none
owned_result find_inside(operation& op, const std::string& path, std::optional<item_stat>& item);

/// The SHA-1 that the storage knows of a file, in lower-case hex; nothing when it knows none.
std::optional<std::string> sha1_inside(operation& op, const std::string& path);

/// Looks at what stands at the operation's path and above it, and completes the operation. A target that is missing is
/// what a store hopes for, and no failure.
void place_find(operation& op, storage_session::place& found);

/// The attributes that a plug-in hands over, without its texts, which are gone after the call.
item_stat item_without_texts(const tarvex_gridftp_server_control_stat_t& stat);

}  // namespace tarvex::server
