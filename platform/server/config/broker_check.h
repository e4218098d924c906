#pragma once

#include "config/configuration.h"

namespace tarvex::server {

/// Enters what is wrong with the app of [box] and with [broker] that a look at single settings does not show: secrets
/// that are missing or exposed, and places that sessions could get at. Files of another user's are not read, and are no
/// mistake: they are the broker's, which says so itself when it cannot read them.
void broker_check(const configuration& config, mistake_list& mistakes);

/// Whether `path` is `folder` or lies in it, by their names and by what these lead to.
[[nodiscard]] bool lies_in(const std::string& path, const std::string& folder);

/// Whether who runs this may not read a file because it, or its folder, is another user's.
[[nodiscard]] bool belongs_to_another(const std::string& path);

}  // namespace tarvex::server
