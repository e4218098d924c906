#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tarvex::server {

/// One thing that was tried.
struct account_check {
  enum class outcome { ok, warning, failed, skipped };
  std::string name;
  outcome how = outcome::ok;
  std::string text = {};  ///< what was found, one line
  std::string hint = {};  ///< what to do; empty: nothing
};

/// Whether everything works. What was skipped does not; what is a warning does.
[[nodiscard]] bool checks_passed(const std::vector<account_check>& checks);

/// Prints a line for each check, or one JSON object.
void checks_print(const std::string& account, const std::vector<account_check>& checks, bool json);

}  // namespace tarvex::server
