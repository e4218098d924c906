/// \file
/// What keeps a file over a crash. On failure errno says why.
#pragma once

#include <string>
#include <string_view>

namespace tarvex::server {

/// Writes all of it to the file's beginning.
[[nodiscard]] bool file_write_whole(int file, std::string_view content);

/// Puts the names in a folder on the disk: that of a new file lasts only then.
[[nodiscard]] bool folder_sync(const std::string& folder);

}  // namespace tarvex::server
