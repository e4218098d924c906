#pragma once

#include "api/call.h"

namespace tarvex::emulator {

/// POST /2.0/web_links with url, parent and perhaps name; GET, PUT, DELETE /2.0/web_links/:id.
[[nodiscard]] response web_link_create(call& of);
[[nodiscard]] response web_link_get(call& of);
[[nodiscard]] response web_link_update(call& of);
[[nodiscard]] response web_link_delete(call& of);

}  // namespace tarvex::emulator
