#pragma once

namespace tarvex::server {

/// Looks for memory that nobody can reach any more, and reports it on standard error: for processes that leave by
/// `_exit`, which skips what AddressSanitizer does at a process's end. Call when all that was made is taken down.
/// \return false when there is some; always true in builds without AddressSanitizer
[[nodiscard]] bool leak_check();

}  // namespace tarvex::server
