#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tarvex::server {

/// Of the known names the one that `name` is most likely a misspelling of, as `; did you mean "x"?`; empty when none is
/// close.
std::string suggestion(std::string_view name, const std::vector<std::string_view>& known);

}  // namespace tarvex::server
