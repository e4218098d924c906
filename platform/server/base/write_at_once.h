#pragma once

#include <cstddef>
#include <string_view>

namespace tarvex::server {

/// Writes as much of `bytes` as a descriptor takes at this moment. Never waits for a reader: not for one that stalls,
/// nor for one that is gone (SIGPIPE has to be ignored for that). A regular file is written as usual.
///
/// Up to PIPE_BUF (4096) bytes go into a pipe whole or not at all, also when several processes write into it.
/// \return the bytes written; 0 when the descriptor takes none.
[[nodiscard]] std::size_t write_at_once(int fd, std::string_view bytes);

}  // namespace tarvex::server
