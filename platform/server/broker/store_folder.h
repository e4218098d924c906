#pragma once

#include <string>

namespace tarvex::server {

/// Makes the folder of the broker's store, where it is missing, for the broker's user, and sees to it that nobody else
/// may enter. \return what is wrong; empty: it can be used.
[[nodiscard]] std::string store_folder_open(const std::string& folder, const std::string& user);

/// Gives a file in the folder to the folder's owner, when root made it. \return false, with errno set, when that fails.
[[nodiscard]] bool store_folder_give(const std::string& folder, int file);

/// "PATH: what: " and what errno says.
[[nodiscard]] std::string store_failure(const std::string& path, const char* what);

}  // namespace tarvex::server
