#pragma once

#include "config/configuration.h"
#include "confine/file_access.h"

#include <string>
#include <vector>

namespace tarvex::server {

/// The files and folders that a session has to get at: certificate authorities, what names hosts, the accounts and the
/// folders of their credentials, spool, pacing files, and the files that TARVEX_*_DEBUG names.
/// \param credentials  folders
[[nodiscard]] std::vector<accessible_place> session_places(const configuration& config,
                                                           const std::vector<std::string>& credentials);

}  // namespace tarvex::server
