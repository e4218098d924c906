#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tarvex::server {

/// What an account's sessions may do; see command/table.
enum class account_permissions { full, read_only, upload_only };

/// The word of the accounts file for it: "full", "read-only" or "upload-only".
[[nodiscard]] std::string_view account_permissions_text(account_permissions permissions);

/// The same the other way round; nothing for other words.
[[nodiscard]] std::optional<account_permissions> account_permissions_parse(std::string_view text);

/// The words, for people.
[[nodiscard]] std::string account_permissions_known();

}  // namespace tarvex::server
