/// \file
/// Where and how the text of a TOML file changes when one key does. For the sources of this room only.
#pragma once

#include "config/toml_edit.h"
#include "config/toml_splice.h"

#include <toml++/toml.h>

#include <string>
#include <string_view>

namespace tarvex::server {

/// The change that sets a key of the table `name`, which stands at the top, or removes one that is there. Nobody has
/// looked yet whether the text means that then: see toml_put.
/// \param root  what `text` means
[[nodiscard]] toml_splice toml_key_change(std::string_view text, const toml::table& root, const std::string& name,
                                          const toml_setting& setting);

/// "KEY = VALUE" of a setting that has a value.
[[nodiscard]] std::string toml_assignment(const toml_setting& setting);

}  // namespace tarvex::server
