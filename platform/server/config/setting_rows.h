#pragma once

#include "config/configuration.h"
#include "config/toml_file.h"

namespace tarvex::server {

/// Reads every key of a configuration file into `out`, with the line where it stands, and enters what is wrong with it:
/// unknown tables and keys, wrong types, values out of range, files that are named and cannot be used. What several
/// keys have to fulfil together is not looked at.
void settings_read(const toml::table& root, configuration& out, mistake_list& mistakes);

}  // namespace tarvex::server
