#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace tarvex::server {

/// Who else may write a file.
enum class file_trust {
  anyone,     ///< does not matter
  owner_only  ///< nobody but the owner: whoever may write it decides who gets in
};

/// Why a file could not be read.
struct file_failure {
  int error = 0;     ///< errno; ENOENT: there is no such file
  std::string text;  ///< for the operator, to follow the path: "cannot be opened: No such file or directory"
};

/// What a file is that is to be read: nothing when it may be. Refuses folders, FIFOs, sockets and devices, and with
/// `owner_only` what group or others may write. Does not wait.
[[nodiscard]] std::optional<file_failure> regular_file_check(const std::string& path, file_trust trust);

/// Reads a whole regular file, refusing what regular_file_check refuses and more than `limit_mib` MiB.
/// \return nothing, with `content` filled; or why not, with `content` as it was.
[[nodiscard]] std::optional<file_failure> regular_file_read(const std::string& path, file_trust trust,
                                                            std::size_t limit_mib, std::string& content);

}  // namespace tarvex::server
