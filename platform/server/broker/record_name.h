#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tarvex::server {

/// The ending of records' files.
constexpr std::string_view RECORD_SUFFIX = ".record";

/// An account's name as part of a file's name, and no two as the same: bytes that are not plain are %XX.
[[nodiscard]] std::string record_name(std::string_view account);

/// The account that a file in the store is of; nothing for files that are no records.
[[nodiscard]] std::optional<std::string> record_account(std::string_view file);

}  // namespace tarvex::server
