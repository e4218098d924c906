#pragma once

#include <string>
#include <string_view>

namespace tarvex::server {

/// Writes a file anew, so that after a crash at any moment either the old content or the new one is there: into a
/// temporary file beside it, which takes its name when all of it is on the disk. Mode and owner stay as they were; a
/// new file has mode 0600. \param path  of a regular file, or of nothing yet; no symbolic link, which would be replaced
/// itself \return what went wrong, for people; empty: nothing. The old file is there then.
[[nodiscard]] std::string file_replace(const std::string& path, std::string_view content);

}  // namespace tarvex::server
