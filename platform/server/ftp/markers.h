#pragma once

#include <cstdint>
#include <string>

namespace tarvex::server {

/// The replies that tell a client of GridFTP how a transfer gets on (GFD-R.020 sections 4.3 and 4.4), CRLF included: a
/// 111 range marker with what a restart would find there, and a 112 performance marker of now.
/// \param moved          bytes sent or received
/// \param restart_point  where an upload could go on; 0: nowhere, and there is no 111
std::string markers_format(std::uint64_t moved, std::uint64_t restart_point);

}  // namespace tarvex::server
