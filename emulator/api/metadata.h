#pragma once

#include "api/call.h"
#include "base/json.h"
#include "store/item.h"

namespace tarvex::emulator {

/// The `global/properties` instance of an item with its '$' members; null when it has none. Inside a transaction.
[[nodiscard]] json_ptr metadata_json(const call& of, const item& subject);

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
