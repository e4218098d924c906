#pragma once

#include "api/call.h"
#include "base/json.h"
#include "store/item.h"

namespace tarvex::emulator {

/// An instance of an item ("global.properties", "enterprise_1.plan") with its '$' members; null when it has none.
/// Inside a transaction.
[[nodiscard]] json_ptr metadata_json(const call& of, const item& subject, std::string_view place);

/// GET /2.0/files/:id/metadata, and the same for folders: all instances.
[[nodiscard]] response file_metadata_list(call& of);
[[nodiscard]] response folder_metadata_list(call& of);

/// Handlers of /2.0/files/:id/metadata/:scope/:template and of the same for folders.
[[nodiscard]] response file_metadata_get(call& of);
[[nodiscard]] response file_metadata_create(call& of);
[[nodiscard]] response file_metadata_update(call& of);
[[nodiscard]] response file_metadata_delete(call& of);
[[nodiscard]] response folder_metadata_get(call& of);
[[nodiscard]] response folder_metadata_create(call& of);
[[nodiscard]] response folder_metadata_update(call& of);
[[nodiscard]] response folder_metadata_delete(call& of);

}  // namespace tarvex::emulator
