#pragma once

#include "config/configuration.h"

namespace tarvex::server {

/// Enters what is wrong with a policy for the Box plug-in, which would only find that at a login. Looks at nothing when
/// another storage is configured.
void box_check(const configuration& config, mistake_list& mistakes);

/// The folder of the plug-in's files, whatever is in it; empty: the user has no home directory.
[[nodiscard]] std::string box_folder();

/// Why the plug-in's requests would be paced by nobody: it keeps the time of the last request in files below the home
/// directory of the user that runs the server. Names the directory.
/// \return empty: they will be paced, or another storage is configured.
[[nodiscard]] std::string box_pacing_warning(const configuration& config);

}  // namespace tarvex::server
