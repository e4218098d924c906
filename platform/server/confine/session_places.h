#pragma once

#include "config/configuration.h"
#include "confine/file_access.h"

#include <string>
#include <vector>

namespace tarvex::server {

/// The files and folders that a session has to get at: certificate authorities, what names hosts, spool, pacing
/// files, and the files that TARVEX_*_DEBUG names.
[[nodiscard]] std::vector<accessible_place> session_places(const configuration& config);

}  // namespace tarvex::server
